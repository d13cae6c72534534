// The Windows listing walk on SetupAPI calls that fail where asked.
#include "Common/IO/DeviceStream/KvPCIE/riffa_stream/RiffaDevice.h"
#include "Common/IO/DeviceStream/KvPCIE/xdma_mm/XdmaDevice.h"
#include "platform/SystemError.h"
#include "platform/win32/Win32InterfaceWalk.h"

#include "../support/Environment.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <string>
#include <vector>

namespace kvpcie::platform::win32 {
namespace {

// One scripted device set: `interfaces` members, and at most one of them failing one way.
struct Script {
    enum class Fault { None, NoSet, SizeQuery, Allocation, Detail };
    int interfaces = 0;
    int failingMember = -1;
    Fault fault = Fault::None;
    DWORD error = 0;
    int allocated = 0;
    int released = 0;
    int setsDestroyed = 0;
};
Script script;
const HDEVINFO kFakeSet = reinterpret_cast<HDEVINFO>(static_cast<std::intptr_t>(0x5E7));

std::wstring FakePath(DWORD member) {
    return L"\\\\?\\pci#ven_10ee&dev_7028#" + std::to_wstring(member);
}

bool Fails(DWORD member, Script::Fault fault) {
    return script.fault == fault && static_cast<int>(member) == script.failingMember;
}

HDEVINFO WINAPI FakeGetClassDevs(const GUID*, PCWSTR, HWND, DWORD) {
    if (script.fault == Script::Fault::NoSet) {
        ::SetLastError(script.error);
        return INVALID_HANDLE_VALUE;
    }
    return kFakeSet;
}

BOOL WINAPI FakeEnumInterfaces(HDEVINFO, PSP_DEVINFO_DATA, const GUID*, DWORD member,
                               PSP_DEVICE_INTERFACE_DATA data) {
    if (static_cast<int>(member) >= script.interfaces) {
        ::SetLastError(ERROR_NO_MORE_ITEMS);
        return FALSE;
    }
    data->Reserved = member;
    return TRUE;
}

BOOL WINAPI FakeGetDetail(HDEVINFO, PSP_DEVICE_INTERFACE_DATA data,
                          PSP_DEVICE_INTERFACE_DETAIL_DATA_W detail, DWORD size, PDWORD required,
                          PSP_DEVINFO_DATA) {
    const DWORD member = static_cast<DWORD>(data->Reserved);
    const std::wstring path = FakePath(member);
    const DWORD needed =
        static_cast<DWORD>(offsetof(SP_DEVICE_INTERFACE_DETAIL_DATA_W, DevicePath) +
                           (path.size() + 1) * sizeof(wchar_t));
    if (detail == nullptr) {
        if (required != nullptr) {
            *required = needed;
        }
        ::SetLastError(Fails(member, Script::Fault::SizeQuery) ? script.error
                                                               : ERROR_INSUFFICIENT_BUFFER);
        return FALSE;
    }
    if (Fails(member, Script::Fault::Detail) || size < needed ||
        detail->cbSize != sizeof(SP_DEVICE_INTERFACE_DETAIL_DATA_W)) {
        ::SetLastError(Fails(member, Script::Fault::Detail) ? script.error
                                                            : ERROR_INVALID_USER_BUFFER);
        return FALSE;
    }
    std::wmemcpy(detail->DevicePath, path.c_str(), path.size() + 1);
    return TRUE;
}

BOOL WINAPI FakeDestroy(HDEVINFO set) {
    script.setsDestroyed += set == kFakeSet;
    return TRUE;
}

void* FakeAllocate(std::size_t bytes) {
    // The member being walked is the one whose size was asked last: count allocations instead.
    if (script.fault == Script::Fault::Allocation && script.allocated == script.failingMember) {
        return nullptr;
    }
    ++script.allocated;
    return std::calloc(1, bytes);
}

void FakeRelease(void* block) {
    ++script.released;
    std::free(block);
}

const SetupApiCalls kFakeCalls{&FakeGetClassDevs, &FakeEnumInterfaces, &FakeGetDetail,
                               &FakeDestroy,      &FakeAllocate,       &FakeRelease};

class Win32Listing : public ::testing::Test {
protected:
    void SetUp() override {
        testing::UnsetEnvironment("KVPCIE_SIM");  // the walk alone, no simulated card after it
        script = Script{};
        saved_ = ListingSetupApi();
        ListingSetupApi() = &kFakeCalls;
    }
    void TearDown() override {
        ListingSetupApi() = saved_;
        EXPECT_EQ(script.allocated, script.released) << "every detail record is freed";
    }
    void Arrange(int interfaces, Script::Fault fault = Script::Fault::None, int member = -1,
                 DWORD error = 0) {
        EXPECT_EQ(script.allocated, script.released) << "every detail record is freed";
        script = Script{};
        script.interfaces = interfaces;
        script.fault = fault;
        script.failingMember = member;
        script.error = error;
    }

private:
    const SetupApiCalls* saved_ = nullptr;
};

std::string NarrowPath(DWORD member) {
    const std::wstring wide = FakePath(member);
    return std::string(wide.begin(), wide.end());
}

TEST_F(Win32Listing, AFailureOnOneInterfaceKeepsTheOnesBeforeItAndSaysWhy) {
    struct Case {
        Script::Fault fault;
        int member;
        DWORD error;
        ListingStop::Reason reason;
        int code;
    };
    const Case cases[] = {
        {Script::Fault::None, -1, 0, ListingStop::Reason::None, 0},
        {Script::Fault::SizeQuery, 1, ERROR_ACCESS_DENIED, ListingStop::Reason::InterfaceDetail,
         ERROR_ACCESS_DENIED},
        {Script::Fault::Allocation, 2, 0, ListingStop::Reason::OutOfMemory,
         ERROR_NOT_ENOUGH_MEMORY},
        {Script::Fault::Detail, 0, ERROR_GEN_FAILURE, ListingStop::Reason::InterfaceDetail,
         ERROR_GEN_FAILURE},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.member);
        Arrange(3, c.fault, c.member, c.error);
        std::vector<std::string> paths;
        ListingStop stop;
        ASSERT_TRUE(ListDeviceInterfaces(kXdmaInterfaceClass, paths, &stop));
        const int listed = c.member < 0 ? 3 : c.member;
        ASSERT_EQ(paths.size(), static_cast<std::size_t>(listed));
        for (int i = 0; i < listed; ++i) {
            EXPECT_EQ(paths[static_cast<std::size_t>(i)], NarrowPath(static_cast<DWORD>(i)));
        }
        EXPECT_EQ(stop.reason, c.reason);
        EXPECT_EQ(stop.error, c.code);
        EXPECT_EQ(script.setsDestroyed, 1);
        EXPECT_EQ(script.allocated, script.released);
    }
}

TEST_F(Win32Listing, OnlyAMissingDeviceSetFailsTheListing) {
    Arrange(3, Script::Fault::NoSet, -1, ERROR_INVALID_FLAGS);
    std::vector<std::string> paths{"left over"};
    EXPECT_FALSE(ListDeviceInterfaces(kXdmaInterfaceClass, paths));
    EXPECT_TRUE(paths.empty());
    EXPECT_EQ(LastError(), static_cast<int>(ERROR_INVALID_FLAGS));
}

TEST_F(Win32Listing, XdmaListingReturnsTheCardsBeforeAFailingInterface) {
    Arrange(3, Script::Fault::Detail, 2, ERROR_GEN_FAILURE);
    char* paths[4] = {};
    EXPECT_EQ(xdma::XdmaGetDevices(kXdmaInterfaceClass, paths), 2);  // and the process goes on
    EXPECT_STREQ(paths[0], NarrowPath(0).c_str());
    EXPECT_STREQ(paths[1], NarrowPath(1).c_str());
    EXPECT_STREQ(paths[2], "");
    for (char* path : paths) {
        std::free(path);
    }
}

TEST_F(Win32Listing, RiffaPrintsTheDeviceLibrarysMessageForEachInterfaceFailure) {
    riffa::RiffaDevice device;
    fpga_info_list list{};
    Arrange(2, Script::Fault::Detail, 0, ERROR_GEN_FAILURE);
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(device.List(&list), static_cast<int>(ERROR_GEN_FAILURE));
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              "SetupDiGetDeviceInterfaceDetail failed, Error: 31\n");
    EXPECT_EQ(list.fpgaCount, 0);

    Arrange(2, Script::Fault::SizeQuery, 0, ERROR_ACCESS_DENIED);
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(device.List(&list), static_cast<int>(ERROR_ACCESS_DENIED));
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              "SetupDiGetDeviceInterfaceDetail failed, Error: 5\n");

    Arrange(2, Script::Fault::Allocation, 0);
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(device.List(&list), 8);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "Insufficient memory.\n");

    // Opening by index walks the same interfaces.
    Arrange(2, Script::Fault::Allocation, 0);
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(device.Open(1), nullptr);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "Insufficient memory.\n");
}

}  // namespace
}  // namespace kvpcie::platform::win32

// kvpcie-simd: the simulated card in a process of its own, served through FUSE as the Linux XDMA
// driver's device files, so that the library's Linux backend drives it exactly as it drives a
// card, and several processes share one card.
#define FUSE_USE_VERSION 312
#include "ModelFileSystem.h"
#include "MountLock.h"
#include "MountPoint.h"
#include "SimdOptions.h"

#include <fuse_lowlevel.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

using kvpcie::simd::ModelFileSystem;

// Exit codes: 1 for a usage or mount point problem, 3 when FUSE cannot be used here at all
// (scripts and tests tell "skip" from "fail" by it).
constexpr int kExitUsage = 1;
constexpr int kExitNoFuse = 3;
// Event reads hold no serving thread while they wait: these serve the register, DMA and sysfs
// calls of a few clients at once.
constexpr unsigned kMaxServingThreads = 16;

char crashMountPoint[4096];

// A crash of the server would leave a mount that answers every client with ENOTCONN; detaching
// it lets clients see the plain directory again. Only async-signal-safe calls here.
void DetachOnCrash(int signalNumber) {
    ::umount2(crashMountPoint, MNT_DETACH);
    ::signal(signalNumber, SIG_DFL);
    ::raise(signalNumber);
}

void DetachOnCrashes() {
    for (int signalNumber : {SIGSEGV, SIGBUS, SIGABRT, SIGFPE, SIGILL}) {
        ::signal(signalNumber, DetachOnCrash);
    }
}

bool FuseDeviceUsable() {
    const int fd = ::open("/dev/fuse", O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        std::fprintf(stderr, "kvpcie-simd: cannot use FUSE: /dev/fuse: %s\n", std::strerror(errno));
        return false;
    }
    ::close(fd);
    return true;
}

void SayAlreadyMounted(const std::string& absolutePath) {
    std::fprintf(stderr,
                 "kvpcie-simd: %s is already mounted (another kvpcie-simd serving it?); "
                 "stop that one, or unmount with: fusermount3 -u %s\n",
                 absolutePath.c_str(), absolutePath.c_str());
}

// Clears a stale mount on the directory; false (with the reason printed) when something is
// served there or the stale mount stays.
bool ClearMountPoint(const std::string& absolutePath) {
    switch (kvpcie::simd::InspectMountPoint(absolutePath)) {
        case kvpcie::simd::MountState::Served:
            SayAlreadyMounted(absolutePath);
            return false;
        case kvpcie::simd::MountState::Stale:
            std::fprintf(stderr,
                         "kvpcie-simd: %s was left mounted by a server that has gone; "
                         "detaching it\n",
                         absolutePath.c_str());
            // Another server starting now may have detached it first.
            if (!kvpcie::simd::DetachStaleMount(absolutePath) &&
                kvpcie::simd::InspectMountPoint(absolutePath) != kvpcie::simd::MountState::Free) {
                std::fprintf(stderr, "kvpcie-simd: cannot detach the stale mount on %s\n",
                             absolutePath.c_str());
                return false;
            }
            return true;
        case kvpcie::simd::MountState::Free:
            return true;
    }
    return false;
}

// Resolves DIR, clears a stale mount on it and takes its lock; false (with the reason printed)
// when DIR cannot be used or another server has it.
bool ClaimMountPoint(const std::string& dir, std::string& absolutePath,
                     kvpcie::simd::MountLock& lock) {
    absolutePath = kvpcie::simd::MountTablePath(dir);
    if (absolutePath.empty()) {
        std::fprintf(stderr, "kvpcie-simd: %s: %s\n", dir.c_str(), std::strerror(errno));
        return false;
    }
    if (!ClearMountPoint(absolutePath)) {
        return false;
    }
    switch (lock.Take(absolutePath)) {
        case kvpcie::simd::MountLock::Outcome::Taken:
            break;
        case kvpcie::simd::MountLock::Outcome::Held:
            std::fprintf(stderr,
                         "kvpcie-simd: %s is already taken by another kvpcie-simd, starting "
                         "on it now\n",
                         absolutePath.c_str());
            return false;
        case kvpcie::simd::MountLock::Outcome::Failed:
            std::fprintf(stderr, "kvpcie-simd: %s: %s\n", absolutePath.c_str(),
                         std::strerror(errno));
            return false;
    }
    // A server that mounted between the first look and the lock: the lock then sits on its
    // file system, not on the directory.
    return ClearMountPoint(absolutePath);
}

struct SessionDeleter {
    void operator()(fuse_session* session) const { fuse_session_destroy(session); }
};
struct LoopConfigDeleter {
    void operator()(fuse_loop_config* config) const { fuse_loop_cfg_destroy(config); }
};

int Serve(const kvpcie::simd::SimdOptions& options, const std::string& mountPoint) {
    ModelFileSystem model(options.cards);
    // Named like a driver's file system in the mount table; no option of FUSE's own is passed
    // through, so none can be slipped in with the directory's name.
    std::vector<std::string> argumentText{"kvpcie-simd", "-o",
                                          "fsname=kvpcie-simd,subtype=kvpcie-simd"};
    std::vector<char*> arguments;
    for (std::string& text : argumentText) {
        arguments.push_back(text.data());
    }
    fuse_args args = FUSE_ARGS_INIT(static_cast<int>(arguments.size()), arguments.data());
    std::unique_ptr<fuse_session, SessionDeleter> session(
        fuse_session_new(&args, &ModelFileSystem::Operations(), sizeof(fuse_lowlevel_ops), &model));
    fuse_opt_free_args(&args);
    if (!session) {
        std::fprintf(stderr, "kvpcie-simd: FUSE refused to start a file system\n");
        return kExitNoFuse;
    }
    if (fuse_session_mount(session.get(), mountPoint.c_str()) != 0) {
        std::fprintf(stderr,
                     "kvpcie-simd: cannot mount %s through FUSE (is mounting permitted here?)\n",
                     mountPoint.c_str());
        return kExitNoFuse;
    }
    std::snprintf(crashMountPoint, sizeof crashMountPoint, "%s", mountPoint.c_str());
    int result = 1;
    if (fuse_set_signal_handlers(session.get()) == 0) {
        DetachOnCrashes();
        if (fuse_daemonize(options.foreground ? 1 : 0) == 0) {
            if (options.foreground) {
                std::printf("kvpcie-simd: serving %d card%s under %s\n", options.cards,
                            options.cards == 1 ? "" : "s", mountPoint.c_str());
                std::fflush(stdout);
            }
            std::unique_ptr<fuse_loop_config, LoopConfigDeleter> loop(fuse_loop_cfg_create());
            if (loop) {
                fuse_loop_cfg_set_max_threads(loop.get(), kMaxServingThreads);
                // A stop by signal ends the loop with the signal's number: a clean end.
                const int loopResult = fuse_session_loop_mt(session.get(), loop.get());
                result = loopResult == 0 || loopResult == SIGTERM || loopResult == SIGINT ||
                                 loopResult == SIGHUP
                             ? 0
                             : 1;
            }
        }
        fuse_remove_signal_handlers(session.get());
    }
    model.Stop();
    fuse_session_unmount(session.get());
    return result;
}

}  // namespace

int main(int argc, char** argv) {
    kvpcie::simd::SimdOptions options;
    std::string error;
    if (!kvpcie::simd::ParseSimdOptions(std::vector<std::string>(argv + 1, argv + argc), options,
                                        error)) {
        std::fprintf(stderr, "kvpcie-simd: %s\n%s", error.c_str(), kvpcie::simd::kSimdUsage);
        return kExitUsage;
    }
    if (options.help) {
        std::fputs(kvpcie::simd::kSimdUsage, stdout);
        return 0;
    }
    if (!FuseDeviceUsable()) {
        return kExitNoFuse;
    }
    std::string mountPoint;
    kvpcie::simd::MountLock lock;  // held until the server has unmounted
    if (!ClaimMountPoint(options.mountDir, mountPoint, lock)) {
        return kExitUsage;
    }
    return Serve(options, mountPoint);
}

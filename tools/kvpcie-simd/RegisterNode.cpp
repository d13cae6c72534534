// The register files: one aligned 32-bit word per call, as the driver moves them.
#include "RegisterNode.h"

#include "NodeSizes.h"

#include <cerrno>
#include <cstring>
#include <optional>

namespace kvpcie::simd {
namespace {

// Past the register space nothing moves. What the call returns instead of the access, or
// nullopt to go on.
std::optional<int> RefuseRegisterAccess(NodeKind kind, std::size_t size, std::int64_t offset) {
    if (size != 4 || offset % 4 != 0) {
        return -EINVAL;
    }
    if (offset < 0 || static_cast<std::uint64_t>(offset) >= NodeBytes(kind)) {
        return 0;
    }
    return std::nullopt;
}

}  // namespace

int RegisterNode::Read(char* buffer, std::size_t size, std::int64_t offset) {
    if (const std::optional<int> refusal = RefuseRegisterAccess(kind_, size, offset)) {
        return *refusal;
    }
    std::uint32_t value = 0;
    if (kind_ == NodeKind::User &&
        !card_->ReadRegister(static_cast<std::uint32_t>(offset), value)) {
        return -EIO;
    }
    std::memcpy(buffer, &value, 4);
    return 4;
}

int RegisterNode::Write(const char* buffer, std::size_t size, std::int64_t offset) {
    if (const std::optional<int> refusal = RefuseRegisterAccess(kind_, size, offset)) {
        return *refusal;
    }
    std::uint32_t value = 0;
    std::memcpy(&value, buffer, 4);
    if (kind_ == NodeKind::User &&
        !card_->WriteRegister(static_cast<std::uint32_t>(offset), value)) {
        return -EIO;
    }
    return 4;
}

}  // namespace kvpcie::simd

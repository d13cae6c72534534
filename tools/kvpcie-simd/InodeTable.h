// The inode numbers that kvpcie-simd gives its paths: FUSE's low-level interface names files by
// number, the model by path.
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace kvpcie::simd {

class InodeTable {
public:
    static constexpr std::uint64_t kRoot = 1;  // FUSE's number for the mount's root, "/"

    InodeTable();

    // The number of `path`, the same for the server's whole life, so that a card that leaves
    // and comes back has the same files. Only paths that the model has are given one, so the
    // table stays small. Throws only when out of memory.
    std::uint64_t NumberOf(const std::string& path);
    // The path numbered `inode`; nullopt for a number never given.
    std::optional<std::string> PathOf(std::uint64_t inode) const;

    // "/dev" and "xdma0_user" make "/dev/xdma0_user".
    static std::string ChildPath(const std::string& directory, const std::string& name);

private:
    mutable std::mutex mutex_;
    std::vector<std::string> paths_;  // inode - 1
    std::unordered_map<std::string, std::uint64_t> numbers_;
};

}  // namespace kvpcie::simd

// Numbering the driver model's paths.
#include "InodeTable.h"

namespace kvpcie::simd {

InodeTable::InodeTable() {
    NumberOf("/");
}

std::uint64_t InodeTable::NumberOf(const std::string& path) {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = numbers_.find(path);
    if (found != numbers_.end()) {
        return found->second;
    }
    paths_.push_back(path);
    const std::uint64_t inode = paths_.size();
    try {
        numbers_.emplace(path, inode);
    } catch (...) {
        paths_.pop_back();
        throw;
    }
    return inode;
}

std::optional<std::string> InodeTable::PathOf(std::uint64_t inode) const {
    std::lock_guard<std::mutex> lock(mutex_);
    if (inode == 0 || inode > paths_.size()) {
        return std::nullopt;
    }
    return paths_[inode - 1];
}

std::string InodeTable::ChildPath(const std::string& directory, const std::string& name) {
    return directory == "/" ? "/" + name : directory + "/" + name;
}

}  // namespace kvpcie::simd

// Writes that go around the page cache, where the OS and the file system offer them.
#pragma once

#include <cstdint>

namespace kvpcie {

// What a write around the page cache needs of its buffer, its length and its file offset.
constexpr std::int64_t kDirectWriteAlignment = 4096;

// Switches writes on the open descriptor `fd` to bypass the page cache. False, leaving the
// descriptor as it was, where the OS or the file system does not offer it.
bool EnableDirectWrites(int fd);
void DisableDirectWrites(int fd);

bool IsDirectWriteAligned(const void* data, std::int64_t bytes);

}  // namespace kvpcie

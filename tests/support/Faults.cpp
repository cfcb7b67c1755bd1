// Faults by way of SQLite's own hooks and of its table of system calls.

#include "tests/support/Faults.h"

#include <gtest/gtest.h>

#include <sqlite3.h>

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <new>
#include <string_view>
#include <unistd.h>
#include <utility>

RefusedPrepare::RefusedPrepare(sqlite3* handle, int action, std::string table)
    : m_handle(handle), m_action(action), m_table(std::move(table))
{
    const auto decide = [](void* self, int does, const char* to, const char*, const char*, const char*) {
        const auto* const that = static_cast<RefusedPrepare*>(self);
        return does == that->m_action && to && that->m_table == to ? SQLITE_DENY : SQLITE_OK;
    };
    sqlite3_set_authorizer(m_handle, decide, this);
}

RefusedPrepare::~RefusedPrepare() { sqlite3_set_authorizer(m_handle, nullptr, nullptr); }

BrokenStep::BrokenStep(sqlite3* handle, std::string part) : m_handle(handle), m_part(std::move(part))
{
    const auto watch = [](unsigned, void* self, void*, void* text) {
        auto* const that = static_cast<BrokenStep*>(self);
        const std::string_view sql(static_cast<const char*>(text));
        that->m_armed = that->m_armed || sql.find(that->m_part) != std::string_view::npos;
        return 0;
    };
    const auto breakOff = [](void* self) {
        auto* const that = static_cast<BrokenStep*>(self);
        return std::exchange(that->m_armed, false) ? 1 : 0;
    };
    sqlite3_trace_v2(m_handle, SQLITE_TRACE_STMT, watch, this);
    sqlite3_progress_handler(m_handle, 1, breakOff, this);
}

BrokenStep::~BrokenStep()
{
    sqlite3_trace_v2(m_handle, 0, nullptr, nullptr);
    sqlite3_progress_handler(m_handle, 0, nullptr, nullptr);
}

namespace {

thread_local int piecesLeft = -1; // -1: memory is not scarce

void* allocate(std::size_t size)
{
    if (piecesLeft >= 0 && piecesLeft-- == 0)
        throw std::bad_alloc();
    if (void* const memory = std::malloc(size ? size : 1))
        return memory;
    throw std::bad_alloc();
}

} // namespace

void* operator new(std::size_t size) { return allocate(size); }
void* operator new[](std::size_t size) { return allocate(size); }
// The standard library takes its scratch memory this way, and gives it back by the one below.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return std::malloc(size ? size : 1); }
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }

RefusedMemory::RefusedMemory(int passes) { piecesLeft = passes; }

RefusedMemory::~RefusedMemory() { piecesLeft = -1; }

bool RefusedMemory::happened() { return piecesLeft == -1; }

namespace {

std::string fullFile;

bool isFull(int descriptor)
{
    char path[4096];
    const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
    const ssize_t length = readlink(link.c_str(), path, sizeof path);
    return std::string_view(path, static_cast<std::size_t>(std::max<ssize_t>(length, 0))).ends_with(fullFile);
}

ssize_t noSpace()
{
    errno = ENOSPC;
    return -1;
}

ssize_t writeUntilFull(int descriptor, const void* bytes, size_t length)
{
    return isFull(descriptor) ? noSpace() : write(descriptor, bytes, length);
}

ssize_t pwriteUntilFull(int descriptor, const void* bytes, size_t length, off_t offset)
{
    return isFull(descriptor) ? noSpace() : pwrite(descriptor, bytes, length, offset);
}

void replaceCalls(sqlite3_syscall_ptr plain, sqlite3_syscall_ptr positioned)
{
    sqlite3_vfs* const files = sqlite3_vfs_find("unix");
    files->xSetSystemCall(files, "write", plain);
    files->xSetSystemCall(files, "pwrite", positioned);
    files->xSetSystemCall(files, "pwrite64", positioned);
}

} // namespace

FullDrive::FullDrive(const std::string& name)
{
    fullFile = name;
    replaceCalls(reinterpret_cast<sqlite3_syscall_ptr>(writeUntilFull),
                 reinterpret_cast<sqlite3_syscall_ptr>(pwriteUntilFull));
}

FullDrive::~FullDrive() { replaceCalls(nullptr, nullptr); }

namespace {

int callsLeft = -1; // before the one that fails; -1: none is to fail

bool isItsTurn()
{
    if (callsLeft < 0 || callsLeft-- > 0)
        return false;
    errno = EIO;
    return true;
}

ssize_t breakingRead(int descriptor, void* bytes, size_t length)
{
    return isItsTurn() ? -1 : read(descriptor, bytes, length);
}
ssize_t breakingPread(int descriptor, void* bytes, size_t length, off_t offset)
{
    return isItsTurn() ? -1 : pread(descriptor, bytes, length, offset);
}
ssize_t breakingWrite(int descriptor, const void* bytes, size_t length)
{
    return isItsTurn() ? -1 : write(descriptor, bytes, length);
}
ssize_t breakingPwrite(int descriptor, const void* bytes, size_t length, off_t offset)
{
    return isItsTurn() ? -1 : pwrite(descriptor, bytes, length, offset);
}
int breakingOpen(const char* path, int flags, int mode) { return isItsTurn() ? -1 : open(path, flags, mode); }
int breakingTruncate(int descriptor, off_t size) { return isItsTurn() ? -1 : ftruncate(descriptor, size); }
int breakingUnlink(const char* path) { return isItsTurn() ? -1 : unlink(path); }

const std::pair<const char*, sqlite3_syscall_ptr> breakingCalls[] = {
    {"read", reinterpret_cast<sqlite3_syscall_ptr>(breakingRead)},
    {"pread", reinterpret_cast<sqlite3_syscall_ptr>(breakingPread)},
    {"pread64", reinterpret_cast<sqlite3_syscall_ptr>(breakingPread)},
    {"write", reinterpret_cast<sqlite3_syscall_ptr>(breakingWrite)},
    {"pwrite", reinterpret_cast<sqlite3_syscall_ptr>(breakingPwrite)},
    {"pwrite64", reinterpret_cast<sqlite3_syscall_ptr>(breakingPwrite)},
    {"open", reinterpret_cast<sqlite3_syscall_ptr>(breakingOpen)},
    {"ftruncate", reinterpret_cast<sqlite3_syscall_ptr>(breakingTruncate)},
    {"unlink", reinterpret_cast<sqlite3_syscall_ptr>(breakingUnlink)},
};

} // namespace

FailedFileCall::FailedFileCall(int passes)
{
    callsLeft = passes;
    sqlite3_vfs* const files = sqlite3_vfs_find("unix");
    for (const auto& [name, call] : breakingCalls)
        files->xSetSystemCall(files, name, call);
}

FailedFileCall::~FailedFileCall()
{
    callsLeft = -1;
    sqlite3_vfs* const files = sqlite3_vfs_find("unix");
    for (const auto& [name, call] : breakingCalls)
        files->xSetSystemCall(files, name, nullptr);
}

bool FailedFileCall::happened() { return callsLeft == -1; }

void corruptFile(const std::string& path)
{
    constexpr std::streamoff page = 4096;
    const auto size = static_cast<std::streamoff>(std::filesystem::file_size(path));
    ASSERT_GT(size, page);
    std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(page);
    file << std::string(static_cast<std::size_t>(size - page), '\x5A');
    ASSERT_TRUE(file.flush());
}

void writeJunk(const std::string& path, int size)
{
    std::ofstream file(path, std::ios::binary);
    file << std::string(static_cast<std::size_t>(size), 'x');
    ASSERT_TRUE(file.flush());
}

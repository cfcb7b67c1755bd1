#pragma once

#include <cstddef>
#include <string>

/// The service stores by way of fixed names in /tmp and a semaphore of the whole machine. A test
/// program that calls this from a static initialiser gets a /tmp and a /dev/shm of its own (empty,
/// in memory) before its first test. Always true.
bool givePrivateTmp();

/// The same at once, for a program without GoogleTest's main; to be called before it has threads. False when the
/// machine does not permit it.
bool enterPrivateTmp();

/// Whether the machine permitted it; then tests may mount what they need.
bool hasPrivateTmp();

/// A test's right to store: it waits for the others where /tmp is everybody's.
class StoringTurn {
public:
    StoringTurn();
    ~StoringTurn();
    StoringTurn(const StoringTurn&) = delete;
    StoringTurn& operator=(const StoringTurn&) = delete;

private:
    int m_lock = -1;
};

/// A file system of its own over a directory, of a few pages or read-only; gone with the scope.
class SmallDrive {
public:
    SmallDrive(std::string directory, std::size_t bytes);
    ~SmallDrive();
    SmallDrive(const SmallDrive&) = delete;
    SmallDrive& operator=(const SmallDrive&) = delete;
    bool setReadOnly(bool readOnly) const;

private:
    std::string m_directory;
};

/// Leaves the private /tmp this much free space, for as long as it lives.
class NearlyFullTmp {
public:
    explicit NearlyFullTmp(std::size_t freeBytes);
    ~NearlyFullTmp();
    NearlyFullTmp(const NearlyFullTmp&) = delete;
    NearlyFullTmp& operator=(const NearlyFullTmp&) = delete;
};

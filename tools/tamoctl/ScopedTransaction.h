#pragma once

#include "tools/tamoctl/Context.h"

#include <cstdint>
#include <optional>
#include <string>

/// A client transaction that a verb runs its requests in. One that goes out of scope without an end
/// is aborted.
class ScopedTransaction {
public:
    /// Throws a Failure when there is one already, or when the service does not start it (with `id`,
    /// because that one is open).
    explicit ScopedTransaction(Context& context, std::optional<std::int32_t> id = {});
    ~ScopedTransaction();
    ScopedTransaction(const ScopedTransaction&) = delete;
    ScopedTransaction& operator=(const ScopedTransaction&) = delete;

    /// Throws a Failure when nothing was committed, or when nobody knows.
    void commit(bool notify);
    void abort();
    /// Aborts after a failure: never throws, and tells in words what became of the transaction.
    std::string abandon() noexcept;

private:
    Context& m_context;
    std::int32_t m_id = 0;
};

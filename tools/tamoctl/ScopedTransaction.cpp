// The life of a transaction as a verb sees it, with words for every way it can end.

#include "tools/tamoctl/ScopedTransaction.h"

#include "tools/tamoctl/Failure.h"

namespace {

std::string howToFree(std::int32_t id, std::int32_t node)
{
    return "\"tamoctl --as " + std::to_string(node) + " transaction --id " + std::to_string(id) + " --abort\" frees it";
}

} // namespace

ScopedTransaction::ScopedTransaction(Context& context, std::optional<std::int32_t> id) : m_context(context)
{
    if (context.database().inTransaction())
        throw Failure(ExitCode::usage, "a transaction cannot stand inside another");
    const auto begun = context.database().beginTransaction(id);
    const std::int32_t node = context.client().node();
    if (!begun && id)
        throw Failure(ExitCode::refused, "transaction " + std::to_string(*id) + " of node " + std::to_string(node) +
                                             " is open already, left by an earlier client; " + howToFree(*id, node));
    if (!begun)
        throw Failure(ExitCode::refused, "the service refused to start a transaction");
    m_id = *begun;
}

ScopedTransaction::~ScopedTransaction() { abandon(); }

void ScopedTransaction::commit(bool notify)
{
    try {
        if (!m_context.database().commitTransaction(notify))
            throw Failure(ExitCode::refused, "the service refused to commit the transaction: nothing of it was done; "
                                             "its log names the operation that failed");
    } catch (const ClientError& error) {
        throw Failure(exitCodeOf(error.kind),
                      std::string(error.what()) + "; whether the transaction was committed is not known");
    }
}

void ScopedTransaction::abort() { m_context.database().abortTransaction(); }

std::string ScopedTransaction::abandon() noexcept
try {
    if (!m_context.database().inTransaction())
        return "the transaction has ended";
    m_context.database().abortTransaction();
    return "the transaction was aborted";
} catch (const std::exception& error) {
    return std::string("the abort failed (") + error.what() + "): the transaction may still be open; " +
           howToFree(m_id, m_context.client().node());
}

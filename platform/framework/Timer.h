#pragma once

#include "platform/framework/ActiveStateMachine.h"

#include <memory>

namespace TAMO::Framework {

/// A one-shot timer: on expiry its owner gets event 999.
class Timer {
public:
    /// Time types of requestTimeout.
    enum TimeType : int { seconds = 1 };

    explicit Timer(ReactiveStateMachine& owner);
    ~Timer();
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;

    /// Arms the timer, in place of an earlier request. TAMO_TIMER_FACTOR (a number above 0, such as
    /// 0.001) stretches or shortens every duration. False for an unknown time type.
    bool requestTimeout(unsigned duration, int timeType);
    /// May be called on another thread than requestTimeout().
    void cancelTimeout();

private:
    struct State;
    std::unique_ptr<State> m_state;
};

} // namespace TAMO::Framework

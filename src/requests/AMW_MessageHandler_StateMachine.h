#pragma once

#include "platform/framework/ActiveStateMachine.h"

/// The states of the middleware status handler: it waits for its timer until it is told to terminate.
class AMW_MessageHandler_StateMachine : public TAMO::Framework::ActiveStateMachine {
public:
    static constexpr int stWaiting = 2000;
    static constexpr int stFinal = 1999;

    /// Its thread has no name of its own and shows under the process's.
    AMW_MessageHandler_StateMachine() : ActiveStateMachine(stWaiting, stFinal, "") {}

    bool dispatch(TAMO::Framework::Event& event) override;
    void enterState(int newState) override;
    void exitState() override;

protected:
    /// The timer has expired.
    virtual void handleTimeout() = 0;
    virtual void enterWaiting() {}
    virtual void exitWaiting() {}
};

// Which event does what in which state of the middleware status handler.

#include "requests/AMW_MessageHandler_StateMachine.h"

using namespace TAMO::Framework;

bool AMW_MessageHandler_StateMachine::dispatch(Event& event)
{
    if (state() == stWaiting) {
        if (event.id() == timerExpired) {
            handleTimeout();
            return true;
        }
        if (event.id() == terminateRequested) {
            exitState();
            enterState(stFinal);
            return true;
        }
    }
    onUnhandledEvent(event);
    return false;
}

void AMW_MessageHandler_StateMachine::enterState(int newState)
{
    if (newState == stWaiting)
        enterWaiting();
    ActiveStateMachine::enterState(newState);
}

void AMW_MessageHandler_StateMachine::exitState()
{
    if (state() == stWaiting)
        exitWaiting();
}

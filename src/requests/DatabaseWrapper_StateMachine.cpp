// Which event does what in which state of the request service.

#include "requests/DatabaseWrapper_StateMachine.h"

using namespace TAMO::Framework;

bool DatabaseWrapper_StateMachine::dispatch(Event& event)
{
    if (state() == stListening) {
        if (event.id() == timerExpired) {
            handleTimeout(state());
            return true;
        }
        if (event.id() == messageReceived) {
            processEvent(static_cast<MessageEvent&>(event));
            return true;
        }
        if (event.id() == EventWithParams_evAMWMessageHandlerEvent::eventId) {
            processEvent_evAMWMessageHandlerEvent(static_cast<EventWithParams_evAMWMessageHandlerEvent&>(event));
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

void DatabaseWrapper_StateMachine::enterState(int newState)
{
    if (newState == stListening)
        enterListening();
    ActiveStateMachine::enterState(newState);
}

void DatabaseWrapper_StateMachine::exitState()
{
    if (state() == stListening)
        exitListening();
}

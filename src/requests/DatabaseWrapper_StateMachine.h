#pragma once

#include "platform/framework/ActiveStateMachine.h"

#include <cstdint>
#include <memory>
#include <string>

/// The states of the request service: it listens until it is told to terminate.
class DatabaseWrapper_StateMachine : public TAMO::Framework::ActiveStateMachine {
public:
    static constexpr int stListening = 2000;
    static constexpr int stFinal = 1999;

    /// The middleware status handler's hold period is over.
    class EventWithParams_evAMWMessageHandlerEvent : public TAMO::Framework::Event {
    public:
        static constexpr int eventId = 1005;

        explicit EventWithParams_evAMWMessageHandlerEvent(std::int32_t ofParameter)
            : Event(eventId), parameter(ofParameter)
        {}
        std::unique_ptr<Event> copyEvent() const override
        {
            return std::make_unique<EventWithParams_evAMWMessageHandlerEvent>(*this);
        }

        const std::int32_t parameter;
    };

    explicit DatabaseWrapper_StateMachine(const std::string& threadName)
        : ActiveStateMachine(stListening, stFinal, threadName)
    {}

    bool dispatch(TAMO::Framework::Event& event) override;
    void enterState(int newState) override;
    void exitState() override;

    /// The timer has expired while the machine was in `state`.
    virtual void handleTimeout(int state) = 0;

protected:
    virtual void enterListening() = 0;
    virtual void exitListening() = 0;
    virtual void processEvent(TAMO::Framework::MessageEvent& event) = 0;
    virtual void processEvent_evAMWMessageHandlerEvent(const EventWithParams_evAMWMessageHandlerEvent& event) = 0;
};

// Input pins over their life: outputs come and go with connections, and a sample may change the media type
// only to one the pin takes.
#include <gtest/gtest.h>

#include <tuple>
#include <vector>

#include "tests/filter/filter_helpers.h"

namespace {
using namespace filter_test;

TEST(PinLifecycle, DisconnectTakesTheOutputAlongAndReconnectGivesOneAgain) {
    FilterHolder filter(CMuxFmp4Filter::Create());
    auto* first = filter->inputPins().at(0);
    ASSERT_EQ(first->ReceiveConnection(inputType(1)), S_OK);
    auto* second = filter->inputPins().at(1);
    ASSERT_EQ(second->ReceiveConnection(inputType(8)), S_OK);
    ASSERT_EQ(filter->outputPins().size(), 2u);
    MuxFmp4OutputPin* secondOutput = filter->outputFor(1);

    // The first input goes: so does its output; the second keeps its own, under its own name.
    ASSERT_EQ(first->Disconnect(), S_OK);
    ASSERT_EQ(filter->outputPins().size(), 1u);
    EXPECT_EQ(filter->outputFor(0), nullptr);
    EXPECT_EQ(filter->outputFor(1), secondOutput);
    EXPECT_EQ(secondOutput->Name(), "Mux Fmp4 Output 2");

    // Connected again, and again, stream 0 has exactly one output.
    for (int round = 0; round < 2; ++round) {
        SCOPED_TRACE(round);
        ASSERT_EQ(first->ReceiveConnection(inputType(1)), S_OK);
        ASSERT_EQ(filter->outputPins().size(), 2u);
        ASSERT_NE(filter->outputFor(0), nullptr);
        EXPECT_NE(filter->outputFor(0), secondOutput);
        if (round == 0) {
            ASSERT_EQ(first->Disconnect(), S_OK);
        }
    }
    // Two inputs, two outputs, one spare input pin.
    EXPECT_EQ(filter->GetPinCount(), 5);
}

TEST(PinLifecycle, ASampleChangingToATypeThePinRefusesStopsWithAnErrorToTheGraph) {
    struct Events : IMediaEventSink {
        HRESULT Notify(long code, std::intptr_t p1, std::intptr_t p2) override {
            got.push_back({code, p1, p2});
            return S_OK;
        }
        std::vector<std::tuple<long, std::intptr_t, std::intptr_t>> got;
    } events;
    FilterHolder filter(CMuxFmp4Filter::Create());
    filter->SetEventSink(&events);
    auto* pin = filter->inputPins().at(0);
    ASSERT_EQ(pin->ReceiveConnection(inputType(4)), S_OK);  // AC-3
    filter->Pause();
    auto sample = COOBMediaSample::create(16);
    EXPECT_EQ(pin->Receive(sample.get()), S_OK);  // no change

    // Index 7 is enumerated but refused by the check; a change to HEVC (index 2) is taken.
    const MediaType refused = inputType(7);
    sample->SetMediaType(&refused);
    EXPECT_EQ(pin->Receive(sample.get()), VFW_E_TYPE_NOT_ACCEPTED);
    ASSERT_EQ(events.got.size(), 1u);
    EXPECT_EQ(events.got[0], std::make_tuple(EC_ERRORABORT, std::intptr_t{VFW_E_TYPE_NOT_ACCEPTED}, std::intptr_t{0}));
    const MediaType taken = inputType(2);
    sample->SetMediaType(&taken);
    EXPECT_EQ(pin->Receive(sample.get()), S_OK);
    EXPECT_EQ(pin->attributes().type, fmp4::HEVC_VIDEO);
    EXPECT_EQ(events.got.size(), 1u);
    filter->Stop();
    filter->SetEventSink(nullptr);
}

}  // namespace

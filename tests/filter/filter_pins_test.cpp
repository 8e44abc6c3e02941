// The filter's identity and configuration, its input pins, and its output pins as a downstream sees them.
#include <gtest/gtest.h>

#include <numeric>
#include <tuple>

#include "filter_helpers.h"
#include "support/exceptions/corvane_exception.h"
#include "tests/common/bytes.h"
#include "tests/common/session_fakes.h"

namespace {
using namespace filter_test;
namespace fmp4 = tvrn::encoding::packaging::imff::fmp4;

TEST(FilterIdentity, GuidsAndInterfaces) {
    EXPECT_EQ(toString(guids::CLSID_MuxFmp4Filter), "{5E4721DD-8521-40AA-A672-7C2097D22477}");
    // A four-character code sits in the first field, little-endian: "vids" is 0x73646976.
    EXPECT_EQ(toString(guids::MEDIATYPE_Video), "{73646976-0000-0010-8000-00AA00389B71}");
    // Memory order: Data1 little-endian on this platform, Data4 as written.
    const GUID g = guidFromString("{01020304-0506-0708-090A-0B0C0D0E0F10}");
    const std::uint8_t expected[16] = {4, 3, 2, 1, 6, 5, 8, 7, 9, 10, 11, 12, 13, 14, 15, 16};
    EXPECT_EQ(std::memcmp(&g, expected, 16), 0);
    EXPECT_THROW(guidFromString("{0102}"), std::invalid_argument);

    FilterHolder filter(CMuxFmp4Filter::Create());
    void* config = nullptr;
    EXPECT_EQ(filter->QueryInterface(guids::IID_IMuxFmp4Config, &config), S_OK);
    EXPECT_EQ(config, static_cast<IMuxFmp4Config*>(filter.get()));
    filter->Release();
    EXPECT_EQ(filter->QueryInterface(guids::IID_IMediaSample3, &config), E_NOINTERFACE);
}

TEST(InputPin, EnumeratesFourteenTypesAndChecksTwelve) {
    FilterHolder filter(CMuxFmp4Filter::Create());
    MuxFmp4InputPin* pin = filter->inputPins().at(0);
    EXPECT_EQ(pin->Name(), "Input0");
    MediaType type;
    int accepted = 0;
    for (int i = 0; i < 14; ++i) {
        ASSERT_EQ(pin->GetMediaType(i, &type), S_OK);
        if (pin->CheckMediaType(type) == S_OK) ++accepted;
        EXPECT_EQ(pin->SetMediaType(type), S_OK);
    }
    EXPECT_EQ(accepted, 12);
    EXPECT_EQ(pin->GetMediaType(14, &type), VFW_S_NO_MORE_ITEMS);
    // Raw AAC and LATM are enumerated and known to set-media-type, but the check refuses them.
    EXPECT_EQ(pin->CheckMediaType(inputType(3)), VFW_E_TYPE_NOT_ACCEPTED);
    EXPECT_EQ(pin->CheckMediaType(inputType(7)), VFW_E_TYPE_NOT_ACCEPTED);
    EXPECT_EQ(pin->ReceiveConnection(inputType(7)), VFW_E_TYPE_NOT_ACCEPTED);
    EXPECT_EQ(pin->SetMediaType(inputType(3)), S_OK);
    EXPECT_EQ(pin->attributes().type, fmp4::AAC_RAW_AUDIO);
    EXPECT_EQ(pin->CheckMediaType(inputType(1)), S_OK);
}

TEST(InputPin, ConnectionAddsPinsPairsOutputsAndComputesBandwidthAndDisconnectionTakesTheOutputAlong) {
    FilterHolder filter(CMuxFmp4Filter::Create());
    EXPECT_EQ(filter->SetOverheadPercent(10), S_OK);
    auto* video = filter->inputPins().at(0);
    EXPECT_EQ(filter->ConfigureInputPin(2000000, "eng", 0, "main", "k=v", 3, 0, nullptr), S_OK);
    ASSERT_EQ(video->ReceiveConnection(inputType(1)), S_OK);
    EXPECT_EQ(video->attributes().type, fmp4::H264_VIDEO);
    EXPECT_EQ(video->attributes().bandwidth, 2200000u);  // bitrate x (100 + 10) / 100
    EXPECT_EQ(video->attributes().language, "eng");
    EXPECT_EQ(video->attributes().name2, "k=v");
    EXPECT_EQ(video->ReceiveConnection(inputType(1)), VFW_E_ALREADY_CONNECTED);

    // A new unconnected pin appears, with the lowest free number.
    auto inputs = filter->inputPins();
    ASSERT_EQ(inputs.size(), 2u);
    EXPECT_EQ(inputs[1]->Name(), "Input1");
    auto* audio = inputs[1];
    // The media type's bitrate replaces the configured one; audio bandwidth equals bitrate.
    const char* const descriptors[][3] = {{"Role", "urn:mpeg:dash:role:2011", "main"}};
    EXPECT_EQ(filter->ConfigureInputPin(96000, "fra", 1, "aud", "", 0, 1, descriptors), S_OK);
    ASSERT_EQ(audio->ReceiveConnection(inputType(8, 128000)), S_OK);
    EXPECT_EQ(audio->attributes().bitrate, 128000);
    EXPECT_EQ(audio->attributes().bandwidth, 128000u);
    ASSERT_EQ(audio->attributes().descriptors.size(), 1u);
    EXPECT_EQ(audio->attributes().descriptors[0].value, "main");

    // One output per input, named by count, with the input's bitrate in its media type.
    auto outputs = filter->outputPins();
    ASSERT_EQ(outputs.size(), 2u);
    EXPECT_EQ(outputs[0]->Name(), "Mux Fmp4 Output 1");
    EXPECT_EQ(outputs[1]->Name(), "Mux Fmp4 Output 2");
    EXPECT_EQ(filter->outputFor(1), outputs[1]);
    const MediaType outType = outputs[0]->GetMediaType();
    EXPECT_EQ(outType.majortype, guids::MEDIATYPE_Fmp4Output);
    EXPECT_EQ(outType.subtype, guids::MEDIASUBTYPE_SmoothOutput);  // the default format is Smooth
    EXPECT_EQ(outType.formattype, guids::FORMAT_OutputBitrate);
    ASSERT_EQ(outType.format.size(), 112u);
    std::uint32_t bitrate = 0;
    std::memcpy(&bitrate, outType.format.data(), 4);
    EXPECT_EQ(bitrate, 2000000u);
    EXPECT_EQ(filter->GetPinCount(), 5);  // two inputs, two outputs, one spare input pin

    // The first input goes: so does its output; the second keeps its own, under its own name.
    ASSERT_EQ(video->Disconnect(), S_OK);
    ASSERT_EQ(filter->outputPins().size(), 1u);
    EXPECT_EQ(filter->outputFor(0), nullptr);
    EXPECT_EQ(filter->outputFor(1), outputs[1]);
    EXPECT_EQ(outputs[1]->Name(), "Mux Fmp4 Output 2");
    // Connected again, and again, stream 0 has exactly one output.
    for (int round = 0; round < 2; ++round) {
        SCOPED_TRACE(round);
        ASSERT_EQ(video->ReceiveConnection(inputType(1)), S_OK);
        ASSERT_EQ(filter->outputPins().size(), 2u);
        ASSERT_NE(filter->outputFor(0), nullptr);
        EXPECT_NE(filter->outputFor(0), outputs[1]);
        if (round == 0) {
            ASSERT_EQ(video->Disconnect(), S_OK);
        }
    }
    EXPECT_EQ(filter->GetPinCount(), 5);
}

TEST(Configuration, StateChecksAndArgumentCodes) {
    FilterHolder filter(CMuxFmp4Filter::Create());
    EXPECT_EQ(filter->SetFirstNumber(-1), E_INVALIDARG);
    EXPECT_EQ(filter->SetFirstNumber(0), S_OK);
    EXPECT_EQ(filter->ConfigureInputPin(0, "und", 0, "", "", 0, 0, nullptr), E_INVALIDARG);
    EXPECT_EQ(filter->SetMuxMode("s", fmp4::Dash, fmp4::GopSegments, 2000, 3, 0, 0, 0, 0, 0, 0, 0), S_OK);
    EXPECT_EQ(filter->outputPins().size(), 0u);
    EXPECT_EQ(testkit::failureOf<CorvaneException>(
                  [&] { filter->SetMuxMode("s", fmp4::Dash, 7, 2000, 3, 0, 0, 0, 0, 0, 0, 0); }),
              "Unknown Fmp4 MuxMode");

    auto* pin = filter->inputPins().at(0);
    ASSERT_EQ(pin->ReceiveConnection(inputType(1, 1000000)), S_OK);
    // A connected pin is never configured again: the next one is.
    EXPECT_EQ(filter->ConfigureInputPin(500, "und", 0, "", "", 0, 0, nullptr), S_OK);
    EXPECT_EQ(filter->inputPins().at(1)->attributes().bitrate, 500);

    ASSERT_TRUE(paused(filter.get()));
    EXPECT_EQ(filter->ConfigureInputPin(500, "und", 0, "", "", 0, 0, nullptr), VFW_E_WRONG_STATE);
    EXPECT_EQ(filter->SetMuxMode("s", fmp4::Dash, fmp4::GopSegments, 2000, 3, 0, 0, 0, 0, 0, 0, 0), E_FAIL);
    EXPECT_EQ(filter->SetLogger(nullptr), E_FAIL);
    EXPECT_EQ(filter->SetFirstNumber(5), S_OK);  // no state check
    EXPECT_EQ(filter->SetOverheadPercent(3), S_OK);
    EXPECT_EQ(pin->Disconnect(), VFW_E_NOT_STOPPED);
    ASSERT_TRUE(stopped(filter.get()));
    EXPECT_EQ(filter->SetLogger(nullptr), S_OK);

    std::uint32_t chunks = 99;
    char text[4] = {'x', 'x', 'x', 'x'};
    EXPECT_EQ(filter->GetStatus(&chunks, text, sizeof text), S_OK);
    EXPECT_EQ(chunks, 0u);
    EXPECT_EQ(text[0], '\0');
}

TEST(KeyServerStatus, FollowsUpAndDownReports) {
    FilterHolder filter(CMuxFmp4Filter::Create());
    testkit::RecordingLogger logger;
    filter->SetLogger(&logger);
    std::uint32_t status = 0;
    filter->GetKeyServerStatus(&status);
    EXPECT_EQ(status, KeyServerUnknown);
    // From unknown to down (logged), down again (nothing), up, up again (ignored), down.
    const std::pair<bool, std::uint32_t> reports[] = {{false, KeyServerDown}, {false, KeyServerDown}, {true, KeyServerMainUp},
                                                      {true, KeyServerMainUp}, {false, KeyServerDown}};
    for (const auto& [up, then] : reports) {
        filter->OnKeyServerStatus(up);
        filter->GetKeyServerStatus(&status);
        EXPECT_EQ(status, then) << up;
    }
    EXPECT_EQ(logger.lines(), (std::vector<std::string>{"0 Key management server down", "2 Key management server up",
                                                        "0 Key management server down"}));
}

// A filter with one connected H.264 input whose output goes to `sink`, and a session whose chunk builder only
// records the outputs it is given, so the test writes chunks itself through the filter's own sink.
struct OutputFixture {
    testkit::ChunksBuilderLog chunks;
    testkit::RecordingLogger logger;
    RecordingSink sink;
    FilterHolder filter;

    explicit OutputFixture(long maxBuffers, long minSize = 0) : sink(maxBuffers, 0x7FFFFFFF, minSize) {
        fmp4::Fmp4MuxParts parts;
        parts.makeChunksBuilder = [this](const fmp4::ChunksBuilderParams&) {
            return std::make_unique<testkit::FakeChunksBuilder>(chunks);
        };
        filter.reset(CMuxFmp4Filter::Create(parts));
        filter->SetLogger(&logger);
        filter->SetMuxMode("s", fmp4::Dash, fmp4::GopSegments, 2000, 3, 0, 0, 0, 0, 0, 0, 0);
        EXPECT_EQ(filter->inputPins()[0]->ReceiveConnection(inputType(1, 2000000)), S_OK);
        EXPECT_EQ(filter->outputPins()[0]->Connect(&sink), S_OK);
        EXPECT_TRUE(paused(filter.get()));
    }
    fmp4::IOutputFmp4& output() { return *chunks.outputs.at(0).output; }
};

std::vector<std::uint8_t> pattern(std::size_t size) {
    std::vector<std::uint8_t> bytes(size);
    std::iota(bytes.begin(), bytes.end(), std::uint8_t{7});
    return bytes;
}

TEST(OutputPin, BuffersForThreeSegmentsAtTheBitrate) {
    // 6000 ms x 3 x 2 Mbit/s / 8000 = 4.5 MB: (4500000 + 8191) / 8192 = 550 buffers of 8192 bytes.
    OutputFixture f(0x7FFFFFFF);
    EXPECT_EQ(f.sink.allocator().properties().count, 550);
    EXPECT_EQ(f.sink.allocator().properties().size, 8192);
    f.filter->Stop();

    // A sink whose allocator gives smaller buffers cannot connect.
    RecordingSink small(1000, 4096);
    ASSERT_EQ(f.filter->inputPins()[1]->ReceiveConnection(inputType(8, 128000)), S_OK);
    EXPECT_EQ(f.filter->outputPins()[1]->Connect(&small), E_FAIL);
}

TEST(OutputPin, ASinkThatGivesLargerBuffersGetsFewerForTheSameBytesAndAChunkInFewerSamples) {
    // 550 x 8192 = 4505600 bytes, in buffers of 65536: 4505600 / 65536 = 68.75, so 69.
    OutputFixture f(0x7FFFFFFF, 65536);
    EXPECT_EQ(f.sink.allocator().properties().count, 69);
    EXPECT_EQ(f.sink.allocator().properties().size, 65536);
    const auto chunk = pattern(65536 + 10);
    const std::int64_t time = 0;
    ASSERT_TRUE(f.output().Write(chunk.data(), chunk.size(), &time, 0, false, false, false, 0));
    const auto got = f.sink.snapshot();
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0].bytes.size(), 65536u);
    EXPECT_EQ(got[1].bytes.size(), 10u);
    f.filter->Stop();
}

TEST(OutputPin, AChunkLeavesAsSamplesOfAtMost8192BytesMarkedOnTheFirstWhileTheFilterRuns) {
    OutputFixture f(100);
    ASSERT_EQ(f.chunks.outputs.size(), 1u);
    EXPECT_EQ(f.chunks.outputs[0].streamIds, std::vector<std::int32_t>{0});
    const auto init = pattern(300);
    ASSERT_TRUE(f.output().Write(init.data(), init.size(), nullptr, 0, true, false, false, 0));
    const auto chunk = pattern(8193);
    const std::int64_t time = 20000000;
    ASSERT_TRUE(f.output().Write(chunk.data(), chunk.size(), &time, 0, false, true, true, 77));
    const auto got = f.sink.snapshot();
    ASSERT_EQ(got.size(), 3u);
    EXPECT_EQ(got[0].bytes, init);
    // Size, sync point, time, discontinuity, data id: the init chunk is a sync point without time; the media
    // chunk leaves as 8192 + 1 bytes, both with its time, the first with discontinuity and data id.
    using Seen = std::tuple<std::size_t, bool, bool, std::int64_t, bool, bool, std::uint64_t>;
    const auto seen = [&](std::size_t i) {
        const auto& g = got[i];
        return Seen{g.bytes.size(), g.sync, g.hasTime, g.hasTime ? g.start : -1, g.discontinuity, g.hasDataId,
                    g.hasDataId ? g.dataId : 0};
    };
    EXPECT_EQ(seen(0), (Seen{300, true, false, -1, false, false, 0}));
    EXPECT_EQ(seen(1), (Seen{8192, false, true, time, true, true, 77}));
    EXPECT_EQ(seen(2), (Seen{1, false, true, time, false, false, 0}));
    std::vector<std::uint8_t> joined = got[1].bytes;
    joined.insert(joined.end(), got[2].bytes.begin(), got[2].bytes.end());
    EXPECT_EQ(joined, chunk);
    std::uint32_t delivered = 0;
    f.filter->GetStatus(&delivered, nullptr, 0);
    EXPECT_EQ(delivered, 2u);
    // Once the filter is stopped nothing more leaves but the end of the stream.
    f.filter->Stop();
    EXPECT_TRUE(f.output().Write(init.data(), init.size(), &time, 0, false, false, false, 0));
    EXPECT_EQ(f.sink.snapshot().size(), 3u);
    f.output().EndOfStream();
    EXPECT_EQ(f.sink.endCount(), 1);
}

TEST(OutputPin, AChunkThatDoesNotFitIsDroppedWholeAndTheNextOneThatFitsLeaves) {
    OutputFixture f(2);
    // Hold one of the two buffers, as a slow downstream would.
    IMediaSample3* held = nullptr;
    ASSERT_EQ(f.sink.allocator().GetBuffer(&held, nullptr, nullptr, AM_GBF_NOWAIT), S_OK);
    const auto big = pattern(3 * 8192);
    const std::int64_t time = 0;
    EXPECT_FALSE(f.output().Write(big.data(), big.size(), &time, 0, false, false, false, 0));
    EXPECT_TRUE(f.sink.snapshot().empty());
    EXPECT_TRUE(f.logger.contains("1 smooth streamer (2000 kbps): dropping segment"));
    EXPECT_EQ(f.sink.allocator().freeCount(), 1);  // the buffer taken for the dropped chunk came back
    const auto small = pattern(100);
    EXPECT_TRUE(f.output().Write(small.data(), small.size(), &time, 0, false, false, false, 0));
    ASSERT_EQ(f.sink.snapshot().size(), 1u);
    EXPECT_EQ(f.sink.snapshot()[0].bytes, small);
    held->Release();
    f.filter->Stop();
}

// A chunk serialised into the pin's next buffer: one sample with the chunk's marks when it fits; when it does not,
// the buffer taken goes to the Write that follows; when none is free, that Write fails
// without asking again, so the drop is logged once. A plain buffer takes no part of a chunk by reference.
TEST(OutputPin, AChunkIsPlacedInTheNextBufferWhenItFitsAndElseWrittenAsBefore) {
    OutputFixture f(0x7FFFFFFF, 65536);
    auto& placement = dynamic_cast<fmp4::IOutputFmp4Placement&>(f.output());
    const std::int64_t time = 40000000;
    const auto chunk = pattern(1000);
    std::uint8_t* target = placement.Place(chunk.size(), &time, 0);
    ASSERT_NE(target, nullptr);
    std::copy(chunk.begin(), chunk.end(), target);
    ASSERT_TRUE(placement.Commit(false, true, true, 9, {}));
    auto got = f.sink.snapshot();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].bytes, chunk);
    EXPECT_TRUE(got[0].hasTime && got[0].start == time && got[0].discontinuity && got[0].hasDataId && got[0].dataId == 9);
    EXPECT_FALSE(placement.Commit(false, false, false, 0, {}));  // nothing placed since
    // A plain buffer takes no references: a chunk with holes in it is not delivered.
    ASSERT_NE(placement.Place(chunk.size(), &time, 0), nullptr);
    EXPECT_FALSE(placement.TakesReferences());
    EXPECT_FALSE(placement.Commit(false, false, false, 0, {{0, chunk.data(), 1, nullptr}}));
    EXPECT_EQ(f.sink.snapshot().size(), 1u);

    f.filter->Stop();

    // Two buffers of 8192 bytes: a chunk of 8202 needs both, the one Place took among them.
    OutputFixture full(2);
    auto& small = dynamic_cast<fmp4::IOutputFmp4Placement&>(full.output());
    const auto large = pattern(8192 + 10);
    EXPECT_EQ(small.Place(large.size(), &time, 0), nullptr);
    ASSERT_TRUE(full.output().Write(large.data(), large.size(), &time, 0, false, false, false, 0));
    got = full.sink.snapshot();
    ASSERT_EQ(got.size(), 2u);
    got[0].bytes.insert(got[0].bytes.end(), got[1].bytes.begin(), got[1].bytes.end());
    EXPECT_EQ(got[0].bytes, large);
    IMediaSample3* held[2] = {};
    for (auto*& h : held) ASSERT_EQ(full.sink.allocator().GetBuffer(&h, nullptr, nullptr, AM_GBF_NOWAIT), S_OK);
    EXPECT_EQ(small.Place(100, &time, 0), nullptr);
    EXPECT_FALSE(full.output().Write(chunk.data(), 100, &time, 0, false, false, false, 0));
    const auto lines = full.logger.lines();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "1 smooth streamer (2000 kbps): dropping segment"), 1);
    for (auto* h : held) h->Release();
    full.filter->Stop();
}

TEST(InputPin, TheDataIdSurvivesOnlyWhenTheDropFlagIsCleared) {
    struct Callback : IDelayCrossingPointCallback {
        void OnDelayCrossingPoint(std::uint64_t id) override { ids.push_back(id); }
        std::vector<std::uint64_t> ids;
    } callback;
    FilterHolder filter(CMuxFmp4Filter::Create());
    auto* pin = filter->inputPins()[0];
    ASSERT_EQ(pin->ReceiveConnection(inputType(1, 1000)), S_OK);
    pin->SetDelayCrossingPointCallback(&callback);
    auto sample = COOBMediaSample::create(16);
    const std::uint64_t id = 1234;
    sample->SetMetadata(MetadataDataId, reinterpret_cast<const std::uint8_t*>(&id), 8);
    filter->Pause();
    EXPECT_EQ(pin->Receive(sample.get()), S_OK);
    EXPECT_TRUE(callback.ids.empty());
    pin->SetDropDataId(0);
    EXPECT_EQ(pin->Receive(sample.get()), S_OK);
    EXPECT_EQ(callback.ids, std::vector<std::uint64_t>{1234});
    // The source sample keeps its own metadata whatever the wrapper does.
    const std::uint8_t* data = nullptr;
    std::size_t size = 0;
    EXPECT_EQ(sample->GetMetadata(MetadataDataId, &data, &size), S_OK);
    EXPECT_EQ(sample->RemoveMetadata(MetadataCuePoint), S_OK);
    filter->Stop();
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

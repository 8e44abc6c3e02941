#pragma once
// The packaging engine as fmp4mux drives it: one filter, configured once, with one input pin and one output per
// stream. The only host code that knows pins, media types, GUIDs and result codes.
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "apps/fmp4mux/cli/encryption_options.h"
#include "apps/fmp4mux/engine/chunk_sink.h"
#include "apps/fmp4mux/inputs/input.h"
#include "apps/fmp4mux/model/track.h"
#include "filter/mux_fmp4_filter/mux_fmp4_filter.h"
#include "support/log/i_logger.h"
#include "support/system/ref_ptr.h"

namespace fmp4mux {

struct EngineSettings {
    bool dash = true;
    std::uint32_t mode = 0;
    std::int32_t gopDurationMs = 2000;
    std::uint32_t gopsPerSegment = 1;
    std::int32_t audioSegmentDurationMs = 2000;
    std::int32_t chunkDurationMs = 500;
    bool inBandParameterSets = false;
    bool allVideoInInit = false;
    bool driftDetection = false;
    bool offline = true;  // a file read as fast as it goes: nothing is dropped for being late
    std::int32_t firstNumber = 1;
    std::string streamName = "live";
    EncryptionOptions encryption;  // checked; not enabled(): clear output
    bool chunkDump = false;        // each chunk described in a debug line before it is built
};

// One stream to package.
struct StreamSetup {
    std::string label;  // "INPUT:STREAM", for messages
    StreamInfo info;
    std::uint32_t bitrate = 0;
    std::string language;
    std::string name;
    std::vector<Descriptor> descriptors;  // reach the engine's stream attributes
};

class Packager {
public:
    // Raises ExitError (bad command line) when the engine refuses the settings.
    Packager(const EngineSettings& settings, tvrn::log::ILogger& logger);
    ~Packager();
    Packager(const Packager&) = delete;
    Packager& operator=(const Packager&) = delete;

    // Connects a stream and its output, whose whole chunks go to `onChunk`; `bufferCount` buffers of 8192 bytes
    // hold one chunk. Returns the stream's handle. Raises ExitError when the engine refuses the stream.
    int connect(const StreamSetup& stream, long bufferCount, ChunkSink::Handler onChunk, ChunkSink::Rooms rooms);
    // Connects an SCTE-35 stream (input type 12): the engine reads its sections for its own downstream, and its
    // output is no track of fmp4mux's, which makes its own events of the sections. -1, with `refused` saying why,
    // when the engine does not take it; the run goes on without.
    int connectSplices(const StreamSetup& stream, std::string& refused);
    // Starts the session. With keys from a key server, the session starts once the server has answered: until then
    // this waits (telling so once), for at most the operator's --kms-wait, and gives up when `stop` is set. Raises
    // ExitError when the session does not start.
    void start(const std::atomic<bool>& stop);
    // Whether the key server is down: before it first answered, or since a key request failed (the last key is
    // kept meanwhile).
    bool keyServerDown() const;
    // From the input's reading thread. Bytes the packet owns whole (Packet::owned) are moved into the engine;
    // the packet's bytes are gone then.
    void deliver(int stream, Packet& packet);
    void endOfStream(int stream);
    // Waits until every output has ended, or `timeout`; true when all have.
    bool waitForEnd(std::chrono::milliseconds timeout);
    // Stops the session and waits until it has ended: what is queued is dropped, nothing more is delivered.
    void stop();

private:
    void configureEncryption(const EncryptionOptions& encryption);
    void configureScheme(const EncryptionOptions& encryption);
    void configureKeyServer(const EncryptionOptions& encryption);
    void configureHarmonic(const EncryptionOptions& encryption);
    void configureKeyServerTls(const EncryptionOptions& encryption);

    // The sinks outlive the filter, whose outputs deliver to them.
    std::vector<std::unique_ptr<ChunkSink>> m_sinks;
    std::vector<ChunkSink*> m_awaited;  // the sinks of the presentation's tracks, whose end ends the run
    tvrn::encoding::RefPtr<tvrn::encoding::filter::CMuxFmp4Filter> m_filter;
    const bool m_dash;
    std::vector<tvrn::encoding::filter::MuxFmp4InputPin*> m_pins;
    bool m_running = false;
    bool m_keyServer = false;
    std::chrono::milliseconds m_keyServerWait{0};
};

}  // namespace fmp4mux

#pragma once
// Streams that end before their input does. The packager waits for every stream at each cut, for ever: a stream
// that left its program, fell silent while the rest of its input went on, or whose whole input fell silent while
// the other inputs went on, is ended here so that the others are still cut. What comes of it later is left out.
// Readers deliver through here on their own threads while the run's watchdog may end streams from another: one
// lock per input keeps a delivery and an end of the same input apart.
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace fmp4mux {

class StreamEnds {
public:
    // By input and stream, the engine output a stream goes to (-1: none). `end` ends an engine output and
    // `warn` says a line.
    StreamEnds(std::vector<std::vector<int>> engineOf, std::function<void(int engine)> end,
               std::function<void(const std::string&)> warn);

    // Ends stream `stream` of `input`, saying why (the text after "input D stream K: "), unless it has ended.
    void end(std::size_t input, std::size_t stream, const std::string& why);
    // Ends every stream of `input` that has not ended, saying why once (the text after "input D: "); nothing is
    // said when `why` is empty (the input ended by itself).
    void endInput(std::size_t input, const std::string& why);
    // Runs `deliver` unless the stream has ended; the first packet refused says that the stream came back. A
    // template: it runs for every packet, and a std::function of the caller's captures would allocate each time.
    template <typename Deliver>
    void deliver(std::size_t input, std::size_t stream, Deliver&& deliver) {
        Input& in = *m_inputs.at(input);
        std::lock_guard lock(in.mutex);
        if (!in.ended.at(stream)) return deliver();
        refusedLocked(input, stream);
    }
    bool ended(std::size_t input, std::size_t stream) const;

private:
    struct Input {
        mutable std::mutex mutex;
        std::vector<bool> ended, cameBack;
    };
    void endLocked(std::size_t input, std::size_t stream);
    void refusedLocked(std::size_t input, std::size_t stream);

    std::vector<std::vector<int>> m_engineOf;
    std::function<void(int)> m_end;
    std::function<void(const std::string&)> m_warn;
    std::vector<std::unique_ptr<Input>> m_inputs;
};

}  // namespace fmp4mux

#pragma once
// A failure that ends the run, with the exit code it ends it with. The rooms raise it; main catches it once,
// says its message and exits with its code.
#include <stdexcept>
#include <string>

namespace fmp4mux {

enum ExitCode : int {
    kExitDone = 0,
    kExitFailed = 1,    // packaging failed
    kExitUsage = 2,     // bad command line, template or stream selection
    kExitInput = 3,     // input missing, unreadable or with nothing to package
    kExitOutput = 4,    // output folder not writable
};

class ExitError : public std::runtime_error {
public:
    ExitError(ExitCode code, const std::string& message) : std::runtime_error(message), m_code(code) {}
    ExitCode code() const { return m_code; }

private:
    ExitCode m_code;
};

}  // namespace fmp4mux

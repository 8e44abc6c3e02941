#pragma once
// The one exception family of the engine: every failure is an exception whose payload is a single text.
#include <exception>
#include <string>

namespace tvrn::cpp_utils::exception_utils {
inline namespace v1 {

class CorvaneException : public std::exception {
public:
    explicit CorvaneException(std::string message) : m_message(std::move(message)) {}
    ~CorvaneException() override = default;
    const char* what() const noexcept override { return m_message.c_str(); }

private:
    std::string m_message;
};

// A distinct exception type per raising class, without writing a class for it. Tag may be incomplete.
template <typename Tag, typename Base = CorvaneException>
class ExceptionTemplate : public Base {
public:
    using Base::Base;
};

// Gives T a nested `Exception` type of its own.
template <typename T>
struct WithException {
    using Exception = ExceptionTemplate<T, CorvaneException>;
};

// The general exception, for code that has no owner class of its own.
using GeneralException = ExceptionTemplate<void, CorvaneException>;

}  // namespace v1
}  // namespace tvrn::cpp_utils::exception_utils

// The older twin in the global namespace is the same class.
using CorvaneException = tvrn::cpp_utils::exception_utils::CorvaneException;

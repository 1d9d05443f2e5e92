#pragma once

#include <exception>
#include <iosfwd>
#include <string>

namespace Fundix {

// Root of all errors raised by this library. Carries a plain message; subclasses may add detail such as a
// backtrace or the place where the error was raised.
class Throwable : public std::exception {
public:
    explicit Throwable(std::string message);

    const char* what() const noexcept override;
    const std::string& GetMessage() const;

    virtual std::string GetBacktrace() const;
    virtual void Dump(std::ostream& out) const;
    virtual std::string Where() const;

private:
    std::string message_;
};

// Exceptions that can be copied and rethrown without knowing their concrete type, e.g. to carry an error
// from a worker thread to the thread waiting for the result. Every subclass overrides Clone and Throw so
// the most-derived type is kept.
class Exception : public Throwable {
public:
    explicit Exception(std::string message);

    // Returns a heap copy owned by the caller.
    virtual Exception* Clone() const;
    [[noreturn]] virtual void Throw() const;
};

class TypeMismatchException : public Exception {
public:
    TypeMismatchException(const std::string& expected, const std::string& received);

    const std::string& GetExpected() const;
    const std::string& GetReceived() const;

    TypeMismatchException* Clone() const override;
    [[noreturn]] void Throw() const override;

private:
    std::string expected_;
    std::string received_;
};

class InvalidArgumentException : public Exception {
public:
    explicit InvalidArgumentException(std::string message);

    InvalidArgumentException* Clone() const override;
    [[noreturn]] void Throw() const override;
};

}  // namespace Fundix

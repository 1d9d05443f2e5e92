#include "fundix/Exception.h"

#include <ostream>
#include <utility>

namespace Fundix {

Throwable::Throwable(std::string message) : message_(std::move(message)) {}

const char* Throwable::what() const noexcept { return message_.c_str(); }

const std::string& Throwable::GetMessage() const { return message_; }

std::string Throwable::GetBacktrace() const { return {}; }

void Throwable::Dump(std::ostream& out) const { out << message_ << '\n'; }

std::string Throwable::Where() const { return {}; }

Exception::Exception(std::string message) : Throwable(std::move(message)) {}

Exception* Exception::Clone() const { return new Exception(*this); }

void Exception::Throw() const { throw Exception(*this); }

TypeMismatchException::TypeMismatchException(const std::string& expected, const std::string& received)
    : Exception("type mismatch: expected " + expected + ", received " + received),
      expected_(expected),
      received_(received) {}

const std::string& TypeMismatchException::GetExpected() const { return expected_; }

const std::string& TypeMismatchException::GetReceived() const { return received_; }

TypeMismatchException* TypeMismatchException::Clone() const { return new TypeMismatchException(*this); }

void TypeMismatchException::Throw() const { throw TypeMismatchException(*this); }

InvalidArgumentException::InvalidArgumentException(std::string message) : Exception(std::move(message)) {}

InvalidArgumentException* InvalidArgumentException::Clone() const {
    return new InvalidArgumentException(*this);
}

void InvalidArgumentException::Throw() const { throw InvalidArgumentException(*this); }

}  // namespace Fundix

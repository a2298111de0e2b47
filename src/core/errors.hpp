#pragma once
// Library error classes: a standard exception for the message plus an ErrorContext carrying
// the machine-readable reason, the operation or component, and the throw site.
#include <cstdint>
#include <source_location>
#include <stdexcept>
#include <string>
#include <string_view>

namespace quillmark {

enum class ErrorReason : std::uint32_t {
    null_storage = 0,
    no_backend_available = 1,
    unsupported_adaptation = 2,
    registry_contract_mismatch = 3,
    singular = 4,
    non_convergence = 5,
    library_failure = 6,
    solver_failure = 7,
    backend_failure = 8,
};

// Any value outside 0..7 is "backend_failure".
std::string_view reason_name(ErrorReason reason) noexcept;

class ErrorContext {
public:
    ErrorContext(std::string operation, ErrorReason reason, std::source_location location)
        : operation_(std::move(operation)), reason_(reason), location_(location) {}
    virtual ~ErrorContext() = default;
    const std::string& operation() const noexcept { return operation_; }
    ErrorReason reason() const noexcept { return reason_; }
    const std::source_location& location() const noexcept { return location_; }

private:
    std::string operation_;
    ErrorReason reason_;
    std::source_location location_;
};

class ArgumentError : public std::invalid_argument, public ErrorContext {
public:
    ArgumentError(std::string operation, ErrorReason reason, const std::string& message,
                  std::source_location location = std::source_location::current())
        : std::invalid_argument(message), ErrorContext(std::move(operation), reason, location) {}
};

class RuntimeError : public std::runtime_error, public ErrorContext {
public:
    RuntimeError(std::string operation, ErrorReason reason, const std::string& message,
                 std::source_location location = std::source_location::current())
        : std::runtime_error(message), ErrorContext(std::move(operation), reason, location) {}
};

class DispatchError : public RuntimeError {
public:
    using RuntimeError::RuntimeError;
};

class SolverError : public RuntimeError {
public:
    SolverError(std::string library, std::int32_t native_status, std::string detail, std::string operation,
                const std::string& message, ErrorReason reason,
                std::source_location location = std::source_location::current())
        : RuntimeError(std::move(operation), reason, message, location), library_(std::move(library)),
          native_status_(native_status), detail_(std::move(detail)) {}
    const std::string& library() const noexcept { return library_; }
    std::int32_t native_status() const noexcept { return native_status_; }
    const std::string& detail() const noexcept { return detail_; }

private:
    std::string library_;
    std::int32_t native_status_;
    std::string detail_;
};

class BackendLibraryError : public RuntimeError {
public:
    BackendLibraryError(std::string library, std::int32_t native_status, std::string status_name,
                        std::string operation, const std::string& message,
                        std::source_location location = std::source_location::current())
        : RuntimeError(std::move(operation), ErrorReason::library_failure, message, location),
          library_(std::move(library)), native_status_(native_status), status_name_(std::move(status_name)) {}
    const std::string& library() const noexcept { return library_; }
    std::int32_t native_status() const noexcept { return native_status_; }
    const std::string& status_name() const noexcept { return status_name_; }

private:
    std::string library_;
    std::int32_t native_status_;
    std::string status_name_;
};

} // namespace quillmark

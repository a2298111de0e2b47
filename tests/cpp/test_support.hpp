#pragma once
#include <cstdint>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <string>
#include <vector>

#include "core/errors.hpp"
#include "runtime/cpu_runtime_context.hpp"

namespace quillmark::testing {

// The message of the E that f throws; empty when f returns normally (other exceptions propagate).
template <class E = std::exception, class F> std::string message_of(F&& f) {
    try {
        f();
    } catch (const E& e) {
        return e.what();
    }
    return "";
}

// "reason: message" of the E (an error with a reason) that f throws; empty when f returns normally.
template <class E, class F> std::string reasoned_message_of(F&& f) {
    try {
        f();
    } catch (const E& e) {
        return std::string(reason_name(e.reason())) + ": " + e.what();
    }
    return "";
}

// Runtime options for a machine of `cpus` logical CPUs on which even the smallest loop is split.
inline CpuRuntimeOptions machine_options(std::uint64_t cpus, std::uint64_t threads = 0) {
    CpuRuntimeOptions options;
    options.hardware_concurrency_override = cpus;
    options.thread_count = threads;
    options.min_parallel_work = 1;
    return options;
}

// The E that f throws, for checking its fields; a logic_error when f returns normally.
template <class E, class F> E capture(F&& f) {
    try {
        f();
    } catch (const E& e) {
        return e;
    }
    throw std::logic_error("expected exception was not thrown");
}

// Bit-for-bit equality (distinguishes -0.0 and NaN payloads, unlike ==).
template <class T> bool same_bits(const std::vector<T>& x, const std::vector<T>& y) {
    return x.size() == y.size() && std::memcmp(x.data(), y.data(), x.size() * sizeof(T)) == 0;
}

} // namespace quillmark::testing

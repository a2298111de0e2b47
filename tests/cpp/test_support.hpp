#pragma once
#include <exception>
#include <string>

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

} // namespace quillmark::testing

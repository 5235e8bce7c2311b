/* Outcome<T>: a value or the one-line reason it could not be obtained.
 * Transport and decoding failures travel this way; result codes the daemon
 * answered are values, not failures. */
#ifndef TBDL_OUTCOME_H
#define TBDL_OUTCOME_H

#include <optional>
#include <string>
#include <utility>

namespace tbdl::client {

struct Failure {
    std::string text;
};

inline Failure Fail(std::string text)
{
    return Failure{std::move(text)};
}

template <class T>
class Outcome {
public:
    Outcome(T value) : m_value(std::move(value)) {}
    Outcome(Failure failure) : m_error(std::move(failure.text)) {}

    bool ok() const { return m_value.has_value(); }
    explicit operator bool() const { return ok(); }
    T &value() { return *m_value; }
    const T &value() const { return *m_value; }
    T &operator*() { return *m_value; }
    const T &operator*() const { return *m_value; }
    T *operator->() { return &*m_value; }
    const T *operator->() const { return &*m_value; }
    const std::string &error() const { return m_error; }

private:
    std::optional<T> m_value;
    std::string m_error;
};

}  // namespace tbdl::client

#endif

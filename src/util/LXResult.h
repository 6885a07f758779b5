#pragma once

#include <QString>

#include <utility>
#include <variant>

/// An error as a value: a domain and code for programs, and three texts for people.
/// description: what did not happen; reason: why; suggestion: what to do next (each may be empty
/// but the description).
struct LXError
{
    QString domain;
    int code = 0;
    QString description;
    QString reason;
    QString suggestion;

    bool operator==(const LXError &) const = default;
};

/// A value or the error that stands in its place. value() and error() need the matching state.
template <typename T> class [[nodiscard]] LXResult
{
public:
    LXResult(T value)
        : m_state(std::in_place_index<0>, std::move(value))
    {}
    LXResult(LXError error)
        : m_state(std::in_place_index<1>, std::move(error))
    {}

    explicit operator bool() const noexcept { return m_state.index() == 0; }
    const T &value() const & { return std::get<0>(m_state); }
    T &value() & { return std::get<0>(m_state); }
    T &&value() && { return std::get<0>(std::move(m_state)); }
    const LXError &error() const { return std::get<1>(m_state); }

private:
    std::variant<T, LXError> m_state;
};

template <> class [[nodiscard]] LXResult<void>
{
public:
    LXResult() = default;
    LXResult(LXError error)
        : m_error(std::move(error))
        , m_ok(false)
    {}

    explicit operator bool() const noexcept { return m_ok; }
    const LXError &error() const { return m_error; }

private:
    LXError m_error;
    bool m_ok = true;
};

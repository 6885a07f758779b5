#pragma once

#include <QDBusConnection>
#include <QDBusError>

#include <chrono>
#include <optional>

/// The session bus, as all services here use it. Main thread.
namespace LXSessionBus {

/// How long an answer is waited for that nothing depends on.
constexpr std::chrono::milliseconds answerLimit{2000};

/// Nothing without a bus. Only a bus that is there is asked: the library would otherwise start one, which
/// nobody else is on.
std::optional<QDBusConnection> connection();

/// The call reached nobody, so something else may be tried in its place. Not so when no answer came: it may
/// have been done all the same.
bool reachedNobody(const QDBusError &error);

} // namespace LXSessionBus

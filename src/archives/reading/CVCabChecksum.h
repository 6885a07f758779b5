#pragma once

#include <QString>

#include <functional>

/// Checks the check sums that a cabinet keeps for its data blocks, for a decoder that does not look at
/// them. Compressed data are read once, nothing is decoded.
enum class CVCabState { Good, Damaged, Stopped };
CVCabState cvCheckCabinet(const QString &path, const std::function<bool()> &shouldStop);

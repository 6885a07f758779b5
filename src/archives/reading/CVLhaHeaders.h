#pragma once

#include <QtGlobal>

class CVArchiveSource;

/// The chain of headers of an LHA archive. The decoders compare no check sum of a header and take one that
/// is damaged for the end, so that all entries behind it are lost without a word.
enum class CVLhaState {
    Whole,
    NotLha,
    Damaged, ///< a header is cut, does not fit its sum, or stands behind what looks like the end
};

CVLhaState cvCheckLha(const CVArchiveSource &source, qint64 offset);

/// Where an LHA starts behind the program that unpacks it; below zero: nowhere.
qint64 cvLhaBehindProgram(const CVArchiveSource &source);

#pragma once

#include "archives/reading/CVLibarchiveReader.h"

#include <QByteArrayView>

#include <optional>

struct CVArchiveProbe;

/// The container that starts at the first of these bytes; nothing when it is none of ours. `wholeSize`
/// is that of what `head` is the start of, below zero when not known.
std::optional<CVLibarchiveFormat> cvLibarchiveFormat(QByteArrayView head, qint64 wholeSize);

/// Whether these are the first 512 bytes of a tar: the header's sum is right.
bool cvIsTarHeader(QByteArrayView head);

bool cvIsRpm(QByteArrayView head);

/// A program, which may carry a RAR archive behind its own code.
bool cvIsProgram(QByteArrayView head);

/// 0 to 100, see the table in the .cpp.
int cvLibarchiveBid(const CVArchiveProbe &probe);

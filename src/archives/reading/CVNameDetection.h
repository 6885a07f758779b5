#pragma once

#include "archives/reading/CVNameCharset.h"
#include "archives/reading/CVNameDecoder.h"

#include <QByteArrayView>

#include <memory>
#include <span>

/// What names of such archives are in when nothing can be told from them. Never null.
std::unique_ptr<CVNameCharset> cvFallbackNameCharset(CVNameDecoder::Family family);

/// The charset in which these names, none of them UTF-8, most likely were written; null when nothing
/// can be told from them.
std::unique_ptr<CVNameCharset> cvDetectNameCharset(std::span<const QByteArrayView> names,
                                                   CVNameDecoder::Family family);

/// This name, though valid UTF-8, makes more sense in the charset.
bool cvIsLikelierThanUtf8(QByteArrayView raw, const CVNameCharset &charset);

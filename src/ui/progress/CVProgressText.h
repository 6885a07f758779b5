#pragma once

#include "engine/model/CVBatchPosition.h"

#include <QString>

/// The small print of the progress screen. Any thread.
namespace CVProgressText {

/// "About 2 minutes left". Rounded so that it changes seldom and promises no more than anybody can know.
QString timeLeft(double seconds);

/// "412.0 MB of 1.2 GB, 45.0 MB/s"; without what is not known yet (zero or less).
QString bytes(double done, double total, double perSecond);

/// "37 %"; never 100 before all is done, never more.
QString percent(double done, double total);

/// "Archive 2 of 5".
QString batch(const CVBatchPosition &position);

} // namespace CVProgressText

#pragma once

#include "archives/reading/CVReadingEngine.h"

#include <memory>

class CVReaderSession;

/// Opens the archive of the session with one of the reader's engines, which then stands for itself here: an
/// engine like any other, but that all of it that decodes runs in the reader.
CVEngineDescriptor::OpenOutcome cvOpenCaged(const std::shared_ptr<CVReaderSession> &session, int engine);

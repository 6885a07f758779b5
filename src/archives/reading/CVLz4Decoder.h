#pragma once

#include "archives/reading/CVStreamDecoders.h"

/// LZ4 frames, skippable ones and the older "legacy" frames, in any order.
CVDecodeResult cvDecodeLz4(CVDecoderInput &input, CVDecoderOutput &output);

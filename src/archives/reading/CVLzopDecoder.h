#pragma once

#include "archives/reading/CVStreamDecoders.h"

/// The files of lzop(1): LZO1X blocks, each with the check sums that the header announces.
CVDecodeResult cvDecodeLzop(CVDecoderInput &input, CVDecoderOutput &output);

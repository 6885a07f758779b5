#pragma once

#include "archives/reading/CVStreamDecoders.h"

/// The LZW streams of compress(1). They carry no check sum, no length and no end mark: only a stream
/// that ends inside a code is known to be cut.
CVDecodeResult cvDecodeCompress(CVDecoderInput &input, CVDecoderOutput &output);

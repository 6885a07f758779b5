#pragma once

/// Whether the file ends before its image does, by what its own headers say.
///
/// For the formats whose readers give out half an image without a word (BMP, GIF, PSD, SGI, EXR); of a
/// GIF only the first image counts. False for all others, and where it cannot be told.
bool isImageCutOff(int descriptor);

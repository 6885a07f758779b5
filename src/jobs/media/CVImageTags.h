#pragma once

#include <QByteArray>
#include <QSize>

#include <memory>

/// What an image file holds beside its pixels: Exif, IPTC, XMP, a comment and the colour profile.
///
/// Tags are an extra: what is broken in them or does not fit into the target is left out, and never
/// stands in the way of the image. Nothing here throws.
class CVImageTags final
{
public:
    CVImageTags();
    ~CVImageTags();
    CVImageTags(CVImageTags &&) noexcept;
    CVImageTags &operator=(CVImageTags &&) noexcept;

    /// Of any file; empty where there are none.
    static CVImageTags ofFile(const QByteArray &path);

    /// From the pieces that an image library found, for files that ofFile() does not know.
    void addExif(const QByteArray &bytes);
    void setColourProfile(const QByteArray &bytes);

    bool isEmpty() const;

    /// From 1 to 8, as in Exif: how the pixels have to be turned to be seen upright.
    int orientation() const;

    /// After the pixels were turned: says that they are upright, and drops the preview, which is not.
    void setUpright(QSize size);

    const QByteArray &colourProfile() const;

    /// Puts them into the image file behind the descriptor, as far as its format holds them, beside
    /// what is there already. `withProfile`: the colour profile too.
    void write(int descriptor, bool withProfile) const;

private:
    struct Private;
    std::unique_ptr<Private> d;
};

#pragma once

#include "archives/reading/XADTypes.h"

#include <QByteArrayView>
#include <QString>

#include <memory>

/// Turns the stored names of one archive into text.
///
/// Old formats store names as bytes of whatever code page the maker used and do not say which. All
/// names of an archive come from one maker, so they are looked at together and one charset is chosen
/// for all; names that carry a mark, or that are valid UTF-8, are read as UTF-8.
///
/// Not every name is text. Where the format says UTF-8 and the bytes are something else, and where tar and
/// its like, which store what the system gave them, have too few odd bytes to tell a charset from, the bytes
/// stay what they are (fileNameFromBytes()) and come back so.
///
/// Use: observe() every name, decide() once, then decode(). Thread: observe() and decide() on one
/// thread; afterwards decode() and charsetName() from any number at once.
class CVNameDecoder final
{
public:
    /// `family` steers the choice: what a maker of such archives without a mark most likely used.
    enum class Family {
        Zip,   ///< DOS and Windows programs: OEM code pages first
        Rar,   ///< old RAR: OEM and ANSI code pages
        Tar,   ///< tar, cpio and the like from Unix: ISO-8859, KOI8, EUC
        Lha,   ///< mostly Japanese
        Arj,   ///< DOS: OEM code pages
        Other, ///< nothing known about the maker
    };
    explicit CVNameDecoder(Family family = Family::Other);
    ~CVNameDecoder();
    CVNameDecoder(CVNameDecoder &&) noexcept;
    CVNameDecoder &operator=(CVNameDecoder &&) noexcept;

    /// Looks at one stored name or link target; marked ones need not be shown. Valid UTF-8 costs a
    /// scan and no allocation. Of other names the first mebibyte is kept; names beyond it are still
    /// decoded, but have no say in the choice.
    void observe(QByteArrayView raw);

    /// Every observed name is valid UTF-8, so there is nothing to detect.
    bool isAllUtf8() const;

    /// Chooses the charset from all names observed. Without it names that are not UTF-8 are read in
    /// the family's fallback.
    void decide();

    /// The charset of names without a mark, in a form ICU and people know ("IBM866", "GB18030");
    /// "UTF-8" when all observed names are.
    QString charsetName() const;

    /// Never fails. Bytes that the charset cannot say, or says in a way that another byte sequence is
    /// to be said in, are shown as U+2030 and two hexadecimal digits ("‰8F"), so different names stay
    /// different. A UTF-8 name whose text is already that of an observed name in the other charset is
    /// told apart in the same way. Line ends, NUL and other controls pass through.
    QString decode(QByteArrayView raw, CVNameEncoding encoding) const;

private:
    struct Private;
    std::unique_ptr<Private> d;
};

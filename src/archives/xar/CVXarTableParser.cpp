#include "archives/xar/CVXarDigest.h"
#include "archives/xar/CVXarTable.h"

#include <QCoreApplication>
#include <QXmlStreamReader>

#include <limits>
#include <unordered_map>

namespace {

using namespace Qt::StringLiterals;

// A token that does not end within so many bytes is made to fill the memory.
constexpr qint64 maxTokenBytes = qint64(1) << 20;

enum class Place : std::uint8_t {
    Document,
    Xar,
    Toc,
    TocChecksum,
    File,
    Data,
    Value, ///< an element that is only text; its name says which
    Passed ///< of no interest, with all that is in it
};

std::optional<std::uint64_t> toNumber(QStringView text, int base = 10)
{
    bool ok = false;
    const QStringView digits = text.trimmed();
    // Qt takes signs and, for base 8, what it is not.
    for (const QChar c : digits)
        if (c < u'0' || c >= QChar(u'0' + base))
            return std::nullopt;
    const qulonglong value = digits.toULongLong(&ok, base);
    return ok ? std::optional<std::uint64_t>(value) : std::nullopt;
}

std::uint32_t toId(QStringView text)
{
    const auto number = toNumber(text);
    return number && *number <= std::numeric_limits<std::uint32_t>::max()
               ? static_cast<std::uint32_t>(*number)
               : 0;
}

xar_file::Encoding toEncoding(QStringView style)
{
    if (style == "application/octet-stream"_L1)
        return xar_file::Encoding::raw;
    if (style == "application/x-gzip"_L1 || style == "application/zlib"_L1)
        return xar_file::Encoding::zlib;
    if (style == "application/x-bzip2"_L1 || style == "application/x-bzip"_L1)
        return xar_file::Encoding::bzip2;
    if (style == "application/x-xz"_L1 || style == "application/x-lzma"_L1)
        return xar_file::Encoding::xz;
    return xar_file::Encoding::unknown;
}

QString text(const char *source)
{
    return QCoreApplication::translate("xar", source);
}

} // namespace

struct CVXarTableParser::Private
{
    explicit Private(std::deque<xar_file> &entries)
        : files(entries)
    {}

    std::deque<xar_file> &files;
    QXmlStreamReader xml;
    std::vector<Place> places{Place::Document};
    std::vector<xar_file *> open; // the elements around the current place
    QString element;              // whose text is read
    QString value;
    QString style;   // its attributes
    QString enctype; //
    QString link;    //
    bool sawTable = false;
    qint64 fed = 0; // bytes since the last token
    std::uint64_t total = 0;
    std::optional<Checksum> checksum;
    std::unordered_map<std::uint64_t, xar_file *> byId;
    std::vector<std::pair<xar_file *, std::uint64_t>> links;
    QString error;

    bool fail(const char *reason)
    {
        if (error.isEmpty())
            error = text(reason);
        return false;
    }

    bool begin();
    bool end();
    bool beginFile();
    bool takeFileValue(xar_file &file);
    bool takeDataValue(xar_file &file);
    QByteArray name() const
    {
        return enctype == "base64"_L1 ? QByteArray::fromBase64(value.toLatin1()) : value.toUtf8();
    }
    void beginValue()
    {
        const QXmlStreamAttributes attributes = xml.attributes();
        element = xml.name().toString();
        style = attributes.value("style"_L1).trimmed().toString();
        enctype = attributes.value("enctype"_L1).trimmed().toString();
        link = attributes.value("link"_L1).trimmed().toString();
        value.clear();
        places.push_back(Place::Value);
    }
};

bool CVXarTableParser::Private::begin()
{
    const QStringView name = xml.name();
    if (places.size() >= maxDepth)
        return fail("Its table of contents is nested too deeply.");
    switch (places.back()) {
    case Place::Document:
        if (name != "xar"_L1)
            return fail("Its table of contents is none.");
        places.push_back(Place::Xar);
        return true;
    case Place::Xar:
        places.push_back(name == "toc"_L1 && !sawTable ? Place::Toc : Place::Passed);
        sawTable = sawTable || name == "toc"_L1;
        return true;
    case Place::Toc:
        if (name == "file"_L1)
            return beginFile();
        if (name == "checksum"_L1 && !checksum) {
            checksum.emplace();
            checksum->algorithm = CVXarDigest::fromName(xml.attributes().value("style"_L1).trimmed());
            places.push_back(Place::TocChecksum);
            return true;
        }
        break;
    case Place::TocChecksum:
        if (name == "offset"_L1 || name == "size"_L1) {
            beginValue();
            return true;
        }
        break;
    case Place::File:
        if (name == "file"_L1)
            return beginFile();
        if (name == "data"_L1) {
            if (open.back()->hasData)
                return fail("An entry in its table of contents has data twice.");
            open.back()->hasData = true;
            places.push_back(Place::Data);
            return true;
        }
        for (const auto known : {"name"_L1, "type"_L1, "link"_L1, "mode"_L1, "uid"_L1, "gid"_L1, "user"_L1,
                                 "group"_L1, "mtime"_L1})
            if (name == known) {
                beginValue();
                return true;
            }
        break;
    case Place::Data:
        if (name == "encoding"_L1)
            open.back()->encoding = toEncoding(xml.attributes().value("style"_L1).trimmed());
        for (const auto known :
             {"length"_L1, "offset"_L1, "size"_L1, "archived-checksum"_L1, "extracted-checksum"_L1})
            if (name == known) {
                beginValue();
                return true;
            }
        break;
    case Place::Value:
    case Place::Passed:
        break;
    }
    places.push_back(Place::Passed);
    return true;
}

bool CVXarTableParser::Private::beginFile()
{
    if (files.size() >= maxEntries)
        return fail("It has too many entries.");
    xar_file &file = files.emplace_back();
    file.parent = open.empty() ? nullptr : open.back();
    const QString id = xml.attributes().value("id"_L1).toString();
    if (!id.isEmpty()) {
        const auto number = toNumber(id);
        if (!number)
            return fail("An entry in its table of contents has a number that is none.");
        file.id = *number;
        if (!byId.emplace(file.id, &file).second)
            return fail("Two entries in its table of contents have the same number.");
    }
    open.push_back(&file);
    places.push_back(Place::File);
    return true;
}

bool CVXarTableParser::Private::end()
{
    const Place place = places.back();
    places.pop_back();
    if (place == Place::File) {
        if (open.back()->name.isNull())
            return fail("An entry in its table of contents has no name.");
        open.pop_back();
    }
    if (place != Place::Value)
        return true;
    if (places.back() == Place::TocChecksum) {
        const auto number = toNumber(value);
        (element == "offset"_L1 ? checksum->offset : checksum->size) =
            number.value_or(std::numeric_limits<std::uint64_t>::max());
        return true;
    }
    return places.back() == Place::Data ? takeDataValue(*open.back()) : takeFileValue(*open.back());
}

bool CVXarTableParser::Private::takeFileValue(xar_file &file)
{
    if (element == "name"_L1) {
        if (!file.name.isNull())
            return fail("An entry in its table of contents has two names.");
        // Nothing can be delivered under an empty name; that costs this entry, not all the others.
        file.name = name();
        if (file.name.isNull())
            file.name = QByteArrayLiteral("");
    } else if (element == "type"_L1) {
        const QStringView type = QStringView(value).trimmed();
        using Type = xar_file::Type;
        file.type = type == "file"_L1        ? Type::file
                    : type == "directory"_L1 ? Type::directory
                    : type == "symlink"_L1   ? Type::symlink
                    : type == "hardlink"_L1  ? Type::hardlink
                                             : Type::special;
        file.isOriginal = file.type == Type::file && link == "original"_L1;
        if (file.type == Type::hardlink) {
            if (link == "original"_L1) {
                file.type = Type::file;
                file.isOriginal = true;
                return true;
            }
            const auto number = toNumber(link);
            if (!number)
                return fail("A hard link in its table of contents leads to no entry.");
            links.emplace_back(&file, *number);
        }
    } else if (element == "link"_L1) {
        file.target = name();
    } else if (element == "mode"_L1) {
        if (const auto mode = toNumber(value, 8)) {
            file.mode = static_cast<std::uint32_t>(*mode & 07777U);
            file.hasMode = true;
        }
    } else if (element == "mtime"_L1) {
        file.modified = CVXarTable::toTime(value);
    } else if (element == "uid"_L1) {
        file.uid = toId(value);
    } else if (element == "gid"_L1) {
        file.gid = toId(value);
    } else if (element == "user"_L1) {
        file.user = name();
    } else if (element == "group"_L1) {
        file.group = name();
    }
    return true;
}

bool CVXarTableParser::Private::takeDataValue(xar_file &file)
{
    if (element == "archived-checksum"_L1 || element == "extracted-checksum"_L1) {
        xar_checksum &sum = element == "archived-checksum"_L1 ? file.archived : file.extracted;
        sum.algorithm = CVXarDigest::fromName(style);
        sum.value = QByteArray::fromHex(value.toLatin1());
        return true;
    }
    const auto number = toNumber(value);
    if (!number)
        return fail("A place in its table of contents is no number.");
    if (element == "offset"_L1)
        file.offset = *number;
    else
        (element == "length"_L1 ? file.length : file.size) = *number;
    return true;
}

CVXarTableParser::CVXarTableParser(std::deque<xar_file> &files)
    : d(std::make_unique<Private>(files))
{}

CVXarTableParser::~CVXarTableParser() = default;

const QString &CVXarTableParser::error() const
{
    return d->error;
}

std::optional<CVXarTableParser::Checksum> CVXarTableParser::checksum() const
{
    return d->checksum;
}

bool CVXarTableParser::add(const QByteArray &piece)
{
    d->total += static_cast<std::uint64_t>(piece.size());
    if (d->total > maxTableBytes)
        return d->fail("Its table of contents is too large.");
    d->fed += piece.size();
    d->xml.addData(piece);
    for (;;) {
        const QXmlStreamReader::TokenType token = d->xml.readNext();
        if (d->xml.hasError()) {
            if (d->xml.error() != QXmlStreamReader::PrematureEndOfDocumentError)
                return d->fail("Its table of contents is damaged.");
            return d->fed <= maxTokenBytes || d->fail("Its table of contents is damaged.");
        }
        d->fed = 0;
        bool ok = true;
        switch (token) {
        case QXmlStreamReader::StartElement:
            ok = d->begin();
            break;
        case QXmlStreamReader::EndElement:
            ok = d->end();
            break;
        case QXmlStreamReader::Characters:
            if (d->places.back() == Place::Value)
                d->value += d->xml.text();
            ok = d->value.size() <= maxTextLength || d->fail("A text in its table of contents is too long.");
            break;
        case QXmlStreamReader::EntityReference:
        case QXmlStreamReader::DTD:
            // Nobody needs a document type here; what it declares could be made to fill the memory.
            ok = d->fail("Its table of contents has a document type.");
            break;
        case QXmlStreamReader::EndDocument:
            return true;
        default:
            break;
        }
        if (!ok)
            return false;
    }
}

bool CVXarTableParser::finish()
{
    if (!d->error.isEmpty())
        return false;
    if (d->places.size() != 1 || !d->sawTable)
        return d->fail("Its table of contents is cut off.");
    for (const auto &[file, id] : d->links) {
        const auto original = d->byId.find(id);
        // A link to a link is what a circle is made of.
        if (original == d->byId.end() || original->second->type != xar_file::Type::file)
            return d->fail("A hard link in its table of contents leads to no file.");
        file->original = original->second;
    }
    for (const xar_file &file : d->files) {
        constexpr auto largest = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
        if (file.size > largest)
            return d->fail("An entry in its table of contents is larger than a file can be.");
    }
    return true;
}

namespace CVXarTable {

std::optional<std::int64_t> toTime(QStringView text)
{
    // 2026-11-21T13:57:04Z; what may follow the seconds is no more exact than they are.
    const QStringView t = text.trimmed();
    static constexpr QStringView form = u"dddd-dd-ddTdd:dd:dd";
    if (t.size() < form.size())
        return std::nullopt;
    std::int64_t fields[6] = {};
    int field = 0;
    for (qsizetype i = 0; i < form.size(); ++i) {
        if (form[i] == u'd') {
            if (t[i] < u'0' || t[i] > u'9')
                return std::nullopt;
            fields[field] = fields[field] * 10 + (t[i].unicode() - u'0');
        } else if (t[i] == form[i]) {
            ++field;
        } else {
            return std::nullopt;
        }
    }
    const auto [year, month, day, hour, minute, second] = fields;
    if (month < 1 || month > 12 || day < 1 || day > 31 || hour > 23 || minute > 59 || second > 60)
        return std::nullopt;
    // Days since 1970: the year begins in March, so that the day that some years have more comes last.
    const std::int64_t y = month <= 2 ? year - 1 : year;
    const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
    const std::int64_t yearOfEra = y - era * 400;
    const std::int64_t dayOfYear = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
    const std::int64_t dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
    return ((era * 146097 + dayOfEra - 719468) * 24 + hour) * 3600 + minute * 60 + second;
}

} // namespace CVXarTable

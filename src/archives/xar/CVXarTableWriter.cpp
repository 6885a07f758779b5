#include "archives/xar/CVXarDeflater.h"
#include "archives/xar/CVXarDigest.h"
#include "archives/xar/CVXarTable.h"

#include <QIODevice>
#include <QXmlStreamWriter>
#include <QtEndian>

#include <array>
#include <ctime>

namespace {

using namespace Qt::StringLiterals;

constexpr std::size_t pieceBytes = std::size_t(1) << 20;
// By how much a table may come out larger when other offsets stand in it, and one byte more a file.
constexpr std::size_t minSizeMargin = 512;
// A stored block with one byte in it.
constexpr std::size_t minPaddingBytes = 6;
constexpr std::size_t maxPaddingBytes = 60000;

/// Compresses what the XML writer gives it, so that never more than a piece of plain text is in memory.
class TableDevice final : public QIODevice
{
public:
    explicit TableDevice(CVXarDeflater &deflater)
        : m_deflater(deflater)
        , packed(CVXarDeflater::head())
    {
        open(QIODevice::WriteOnly | QIODevice::Unbuffered);
        m_plain.reserve(pieceBytes);
    }

    void flush() { pack(false); }

    /// Blanks behind the last element, stored as they are: the only thing with an exact size.
    void padTo(std::size_t size)
    {
        while (packed.size() < size) {
            const std::size_t missing = size - packed.size();
            std::size_t part = std::min(missing, maxPaddingBytes);
            if (part < missing && missing - part < minPaddingBytes)
                part -= minPaddingBytes;
            m_plain.assign(part - minPaddingBytes + 1, ' ');
            pack(true);
        }
    }

    CVXarDeflater &m_deflater;
    std::vector<char> packed;
    std::uint32_t sum = CVXarDeflater::initialChecksum;
    std::uint64_t plainBytes = 0;

protected:
    qint64 readData(char *, qint64) override { return -1; }
    qint64 writeData(const char *data, qint64 size) override
    {
        m_plain.insert(m_plain.end(), data, data + size);
        if (m_plain.size() >= pieceBytes)
            pack(false);
        return size;
    }

private:
    void pack(bool stored)
    {
        if (m_plain.empty())
            return;
        if (stored)
            m_piece = CVXarDeflater::stored(m_plain);
        else
            m_deflater.piece(m_plain, m_piece);
        packed.insert(packed.end(), m_piece.begin(), m_piece.end());
        sum = CVXarDeflater::checksum(sum, m_plain);
        plainBytes += m_plain.size();
        m_plain.clear();
    }

    std::vector<char> m_plain;
    std::vector<char> m_piece;
};

/// As text, where XML and every reader of it leave it as it is.
bool isPlain(const QByteArray &bytes)
{
    if (!bytes.isValidUtf8())
        return false;
    for (const QChar c : QString::fromUtf8(bytes))
        if ((c < u' ' && c != u'\n' && c != u'\t') || (c >= u'\x7f' && c < u'\xa0') || c >= u'\xfffe')
            return false;
    return true;
}

class TableWriter
{
public:
    TableWriter(TableDevice &device, const std::deque<xar_file> &files, std::uint64_t dataOffset)
        : m_xml(&device)
        , m_files(files)
        , m_dataOffset(dataOffset)
    {}

    bool write(const std::atomic<bool> &cancelled)
    {
        m_xml.writeStartDocument();
        m_xml.writeStartElement("xar"_L1);
        m_xml.writeStartElement("toc"_L1);
        m_xml.writeStartElement("checksum"_L1);
        m_xml.writeAttribute("style"_L1, "sha1"_L1);
        number("size", CVXarTable::checksumBytes);
        number("offset", 0);
        m_xml.writeEndElement();
        writeFiles(cancelled);
        m_xml.writeEndElement();
        m_xml.writeEndElement();
        m_xml.writeEndDocument();
        return !cancelled;
    }

private:
    void writeFiles(const std::atomic<bool> &cancelled)
    {
        // Children of a folder may have been added at any time; links from one to the next keep this linear.
        const auto none = static_cast<std::uint32_t>(-1);
        std::vector<std::uint32_t> first(m_files.size() + 1, none), last(first), next(first);
        for (std::uint32_t i = 0; i < m_files.size(); ++i) {
            const std::size_t parent = m_files[i].parent ? m_files[i].parent->id : 0;
            (last[parent] == none ? first[parent] : next[last[parent]]) = i;
            last[parent] = i;
        }
        std::vector<std::uint32_t> open; // whose next sibling comes after their element
        for (std::uint32_t at = first[0];;) {
            if (cancelled)
                return;
            while (at == none) {
                if (open.empty())
                    return;
                m_xml.writeEndElement();
                at = next[open.back()];
                open.pop_back();
            }
            beginFile(m_files[at]);
            open.push_back(at);
            at = first[m_files[at].id];
        }
    }

    void beginFile(const xar_file &file)
    {
        m_xml.writeStartElement("file"_L1);
        m_xml.writeAttribute("id"_L1, QString::number(file.id));
        // Readers that know no hard links make a file of the same data out of one.
        if (const xar_file &holder = file.original ? *file.original : file; holder.hasData)
            data(holder);
        if (file.modified)
            m_xml.writeTextElement("mtime"_L1, QString::fromLatin1(CVXarTable::fromTime(*file.modified)));
        m_xml.writeTextElement("mode"_L1, u'0' + QString::number(file.mode, 8));
        number("gid", file.gid);
        number("uid", file.uid);
        text("user", file.user);
        text("group", file.group);
        m_xml.writeStartElement("type"_L1);
        switch (file.type) {
        case xar_file::Type::file:
        case xar_file::Type::special:
            if (file.isOriginal)
                m_xml.writeAttribute("link"_L1, "original"_L1);
            m_xml.writeCharacters("file"_L1);
            break;
        case xar_file::Type::directory:
            m_xml.writeCharacters("directory"_L1);
            break;
        case xar_file::Type::symlink:
            m_xml.writeCharacters("symlink"_L1);
            break;
        case xar_file::Type::hardlink:
            m_xml.writeAttribute("link"_L1, QString::number(file.original->id));
            m_xml.writeCharacters("hardlink"_L1);
            break;
        }
        m_xml.writeEndElement();
        text("name", file.name);
        if (file.type == xar_file::Type::symlink)
            text("link", file.target, "file");
    }

    void data(const xar_file &file)
    {
        m_xml.writeStartElement("data"_L1);
        number("length", file.length);
        number("offset", m_dataOffset + file.offset);
        number("size", file.size);
        m_xml.writeEmptyElement("encoding"_L1);
        m_xml.writeAttribute("style"_L1, file.encoding == xar_file::Encoding::zlib
                                             ? "application/x-gzip"_L1
                                             : "application/octet-stream"_L1);
        digest("extracted-checksum", file.extracted);
        digest("archived-checksum", file.archived);
        m_xml.writeEndElement();
    }

    void digest(const char *element, const xar_checksum &checksum)
    {
        m_xml.writeStartElement(QLatin1String(element));
        m_xml.writeAttribute("style"_L1, "sha1"_L1);
        m_xml.writeCharacters(QString::fromLatin1(checksum.value.toHex()));
        m_xml.writeEndElement();
    }

    void number(const char *element, std::uint64_t value)
    {
        m_xml.writeTextElement(QLatin1String(element), QString::number(value));
    }

    void text(const char *element, const QByteArray &bytes, const char *type = nullptr)
    {
        if (bytes.isEmpty())
            return;
        m_xml.writeStartElement(QLatin1String(element));
        if (type)
            m_xml.writeAttribute("type"_L1, QLatin1String(type));
        if (isPlain(bytes)) {
            m_xml.writeCharacters(QString::fromUtf8(bytes));
        } else {
            m_xml.writeAttribute("enctype"_L1, "base64"_L1);
            m_xml.writeCharacters(QString::fromLatin1(bytes.toBase64()));
        }
        m_xml.writeEndElement();
    }

    QXmlStreamWriter m_xml;
    const std::deque<xar_file> &m_files;
    std::uint64_t m_dataOffset;
};

std::vector<char> withHeader(const TableDevice &table)
{
    std::vector<char> out(CVXarTable::headerBytes);
    const std::vector<char> end = CVXarDeflater::end(table.sum);
    qToBigEndian<quint32>(0x78617221, out.data()); // "xar!"
    qToBigEndian<quint16>(CVXarTable::headerBytes, out.data() + 4);
    qToBigEndian<quint16>(1, out.data() + 6);
    qToBigEndian<quint64>(table.packed.size() + end.size(), out.data() + 8);
    qToBigEndian<quint64>(table.plainBytes, out.data() + 16);
    qToBigEndian<quint32>(1, out.data() + 24); // the checksum is SHA-1
    out.insert(out.end(), table.packed.begin(), table.packed.end());
    out.insert(out.end(), end.begin(), end.end());
    CVXarDigest digest;
    digest.add(std::span<const char>(out).subspan(CVXarTable::headerBytes));
    const QByteArray sum = digest.value();
    out.insert(out.end(), sum.cbegin(), sum.cend());
    return out;
}

} // namespace

namespace CVXarTable {

std::vector<char> front(const std::deque<xar_file> &files, std::uint64_t dataAt, CVXarDeflater &deflater,
                        const std::atomic<bool> &cancelled)
{
    const std::size_t endBytes = CVXarDeflater::end(0).size();
    if (dataAt != 0) {
        // Offsets count from the end of the table. So its size is settled first, with numbers of about the
        // right length in it, and what it then lacks to that size is padded.
        TableDevice trial(deflater);
        if (!TableWriter(trial, files, dataAt).write(cancelled))
            return {};
        trial.flush();
        for (std::size_t margin = minSizeMargin + files.size();; margin *= 2) {
            const std::size_t size = trial.packed.size() + margin;
            const std::uint64_t heapAt = headerBytes + size + endBytes;
            if (heapAt + checksumBytes > dataAt)
                break;
            TableDevice table(deflater);
            if (!TableWriter(table, files, dataAt - heapAt).write(cancelled))
                return {};
            table.flush();
            if (table.packed.size() + minPaddingBytes > size)
                continue;
            table.padTo(size);
            return withHeader(table);
        }
    }
    TableDevice table(deflater);
    if (!TableWriter(table, files, checksumBytes).write(cancelled))
        return {};
    table.flush();
    return withHeader(table);
}

QByteArray fromTime(std::int64_t seconds)
{
    const auto time = static_cast<time_t>(seconds);
    std::tm parts{};
    std::array<char, 32> text{};
    if (!::gmtime_r(&time, &parts) || parts.tm_year < -1900 || parts.tm_year > 9999 - 1900)
        return {};
    return QByteArray(text.data(), static_cast<qsizetype>(std::strftime(text.data(), text.size(),
                                                                        "%Y-%m-%dT%H:%M:%SZ", &parts)));
}

} // namespace CVXarTable

#include "archives/reading/CVLibarchiveEngine.h"

#include "archives/reading/CVIsoContinuations.h"

#include "archives/reading/CVLhaHeaders.h"
#include "archives/reading/CVLibarchiveBids.h"
#include "archives/reading/CVLibarchiveReader.h"
#include "archives/reading/CVRarSum.h"
#include "archives/reading/CVRarVolumes.h"
#include "archives/reading/CVReadingText.h"
#include "archives/reading/CVSingleFileEngine.h"

#include <QtEndian>

#include <algorithm>
#include <new>

namespace {

using namespace Qt::StringLiterals;
using Flow = CVEntryWriter::Flow;

// The sink takes at most this much at once.
constexpr std::size_t maxWriteBytes = std::size_t(1) << 20;
// Enough to see what a compressed stream holds: one tar block and some.
constexpr std::size_t sniffBytes = 4096;

CVEngineDescriptor::OpenOutcome refused(XADErrorCode code, const QString &detail)
{
    return {nullptr, code, detail, false};
}

/// Damage that is proven: no other reader is to pass over it.
CVEngineDescriptor::OpenOutcome certainlyDamaged(const QString &detail)
{
    return {nullptr, XADErrorCode::Damaged, detail, true};
}

CVEngineDescriptor::OpenOutcome opened(std::unique_ptr<CVReadingEngine> engine)
{
    return {std::move(engine), XADErrorCode::None, {}, false};
}

QString containerName(CVLibarchiveFormat format)
{
    switch (format) {
    case CVLibarchiveFormat::Tar:
        return u"tar"_s;
    case CVLibarchiveFormat::Cpio:
        return u"cpio"_s;
    case CVLibarchiveFormat::Ar:
        return u"ar"_s;
    case CVLibarchiveFormat::Rar4:
        return u"RAR"_s;
    case CVLibarchiveFormat::Rar5:
        return u"RAR 5"_s;
    case CVLibarchiveFormat::Lha:
        return u"LHA"_s;
    case CVLibarchiveFormat::Iso:
        return u"ISO 9660"_s;
    case CVLibarchiveFormat::Cab:
        return u"Cabinet"_s;
    case CVLibarchiveFormat::Warc:
        return u"WARC"_s;
    }
    return {};
}

class Engine final : public CVReadingEngine
{
public:
    Engine(CVLibarchiveReader::Input input, QString name, std::optional<CVRarHeaders> rar = {})
        : m_input(std::move(input))
        , m_name(std::move(name))
        , m_rar(std::move(rar))
    {}

    QString formatName() const override { return m_name; }

    /// Who may stop a listing, which for a compressed archive reads all of it. Borrowed.
    void setHost(CVEngineHost *host) { m_host = host; }

    const std::vector<XADEntry> &entries() const override
    {
        if (!m_listed && !m_extracting) {
            m_entries.clear();
            m_listing = run({}, false, nullptr);
            m_listed = true;
        }
        return m_entries;
    }

    Outcome listingOutcome() const override
    {
        entries();
        return m_listing;
    }

    bool entriesAreLazy() const override
    {
        return m_input.stream != CVStreamKind::None || (m_rar && m_rar->isSolid);
    }

    /// Whatever has encrypted parts is refused on opening.
    bool isEncrypted() const override { return false; }

    Outcome extract(std::span<const int> indices, bool all, CVEntrySink &sink) override
    {
        if (!all && !m_listed)
            entries();
        if (!m_listed)
            m_entries.clear();
        m_extracting = true;
        Outcome outcome;
        try {
            outcome = run(indices, all, &sink);
        } catch (const std::bad_alloc &) {
            outcome = {XADErrorCode::NotSupported, readingText("There is not enough memory.")};
        }
        m_extracting = false;
        m_listed = m_listed || (all && outcome.code == XADErrorCode::None);
        return outcome;
    }

    /// libarchive stumbles over rare methods of RAR and LHA that are not damaged; the others check them too.
    bool isDamageFinal() const override
    {
        return m_input.format != CVLibarchiveFormat::Rar4 && m_input.format != CVLibarchiveFormat::Rar5 &&
               m_input.format != CVLibarchiveFormat::Lha;
    }

    bool compressedProgress(qint64 &done, qint64 &total) const override
    {
        done = m_input.source->position();
        total = m_input.source->size();
        return true;
    }

    QStringList volumePaths() const override
    {
        const QStringList paths = m_input.source->paths();
        return paths.size() > 1 ? paths : QStringList();
    }

private:
    using Step = CVLibarchiveReader::Step;

    /// What is known about an entry beside what is shown of it.
    struct Checks
    {
        const CVRarFile *sums = nullptr; ///< whose sums the data has to fit
        bool isVerifiable = true;
    };

    /// One pass over the archive; without a sink, it only lists.
    Outcome run(std::span<const int> indices, bool all, CVEntrySink *sink) const
    {
        m_input.source->resetPosition();
        CVLibarchiveReader reader(
            m_input, [this, sink] { return sink ? sink->shouldStop() : m_host && m_host->shouldStop(); });
        auto wanted = indices.begin();
        XADEntry entry;
        for (std::size_t index = 0;; ++index) {
            // The headers of a RAR were read before; what follows the last file is not worth a failure.
            if (m_rar && index == m_rar->files.size())
                return {};
            // The rest of an archive that can be read from anywhere proves nothing about the entries before.
            if (sink && !all && wanted == indices.end() && m_input.stream == CVStreamKind::None)
                return {};
            Step step = reader.next(entry);
            while (step == Step::Good && isIndex(entry))
                step = reader.next(entry);
            if (step == Step::End)
                step = reader.finish();
            if (step == Step::End)
                return endOfArchive(index, reader.remark());
            if (step != Step::Good)
                return {reader.code(), reader.detail()};
            const Checks checks = complete(entry, index);
            if (!m_listed)
                m_entries.push_back(entry);
            else if (index >= m_entries.size() || m_entries[index].name != entry.name)
                return {XADErrorCode::Damaged, readingText("The file changed while it was read.")};
            if (!sink)
                continue;
            if (!all) {
                if (wanted == indices.end() || *wanted != static_cast<int>(index))
                    continue;
                ++wanted;
            }
            const Outcome outcome = deliver(reader, static_cast<int>(index), checks, *sink);
            if (outcome.code != XADErrorCode::None)
                return outcome;
        }
    }

    /// The tables of symbols and of long names are not members of a library.
    bool isIndex(const XADEntry &entry) const
    {
        return m_input.format == CVLibarchiveFormat::Ar &&
               (entry.name == "/" || entry.name == "//" || entry.name == "/SYM64/");
    }

    Outcome endOfArchive(std::size_t count, const QString &remark) const
    {
        if (m_listed && count < m_entries.size())
            return {XADErrorCode::Damaged, readingText("The file changed while it was read.")};
        if (m_rar && count < m_rar->files.size())
            return {XADErrorCode::Damaged, readingText("The archive ends early.")};
        return {XADErrorCode::None, {}, remark};
    }

    /// Adds what the RAR headers say.
    Checks complete(XADEntry &entry, std::size_t index) const
    {
        if (!m_rar)
            return {};
        const CVRarFile &file = m_rar->files[index];
        if (file.hasUnicodeName)
            entry.nameEncoding = CVNameEncoding::Utf8;
        if (!file.isUnixHost)
            entry.hasMode = false;
        if (file.isFileCopy) {
            entry.type = XADEntry::Type::HardLink;
            entry.linkTarget = file.linkTarget;
            entry.size = 0;
        }
        const bool isFile = entry.type == XADEntry::Type::File;
        // Both readers have to speak of the same file, or the check sum is that of another.
        const bool same = !isFile || (!file.isDirectory && file.size == entry.size);
        return {isFile ? &file : nullptr, same && (!isFile || file.size == 0 || CVRarSum(file).canCompare())};
    }

    static Outcome stopped() { return {XADErrorCode::Stopped, {}}; }

    Outcome deliver(CVLibarchiveReader &reader, int index, const Checks &checks, CVEntrySink &sink) const
    {
        const XADEntry &entry = m_entries[static_cast<std::size_t>(index)];
        if (entry.encrypted || !checks.isVerifiable) {
            const QString reason = entry.encrypted ? readingText("This reader cannot decrypt it.")
                                                   : readingText("This reader cannot check it.");
            return sink.entryFailed(index, XADErrorCode::NotSupported, reason) == Flow::Stop ? stopped()
                                                                                             : Outcome{};
        }
        const std::unique_ptr<CVEntryWriter> writer = sink.beginEntry(index);
        if (!writer)
            return sink.shouldStop() ? stopped() : Outcome{};

        std::optional<CVRarSum> sum;
        if (checks.sums)
            sum.emplace(*checks.sums);
        qint64 position = 0;
        Flow flow = Flow::Go;
        Step step = Step::Good;
        XADErrorCode code = XADErrorCode::None;
        QString detail;
        while (flow == Flow::Go) {
            std::span<const char> data;
            qint64 offset = 0;
            step = reader.read(data, offset);
            if (step != Step::Good)
                break;
            // Only tar has holes; elsewhere one is a piece that is missing.
            if (offset < position || (offset > position && m_input.format != CVLibarchiveFormat::Tar)) {
                code = XADErrorCode::Damaged;
                detail = readingText("Its pieces do not fit together.");
                break;
            }
            if (data.empty())
                continue;
            if (sum)
                sum->add(data);
            if (offset > position)
                flow = writer->writeHole(offset - position);
            position = offset + static_cast<qint64>(data.size());
            for (; flow == Flow::Go && !data.empty();
                 data = data.subspan(std::min(data.size(), maxWriteBytes)))
                flow =
                    writer->write(data.data(), static_cast<qsizetype>(std::min(data.size(), maxWriteBytes)));
        }
        if (flow == Flow::Stop)
            return stopped();
        if (step == Step::EntryFailed || step == Step::Failed) {
            code = reader.code();
            detail = reader.detail();
        } else if (flow == Flow::Go && code == XADErrorCode::None) {
            // Only tar says where its holes are; elsewhere what is missing at the end is missing.
            if (m_input.format == CVLibarchiveFormat::Tar && entry.type == XADEntry::Type::File &&
                position < entry.size)
                flow = writer->writeHole(entry.size - position);
            if (sum && !sum->fits()) {
                code = XADErrorCode::Damaged;
                detail = readingText("Its check sum does not fit.");
            }
        }
        if (code == XADErrorCode::Stopped)
            return stopped();
        flow = writer->finish(code, detail);
        if (step == Step::Failed)
            return {code, detail};
        return flow == Flow::Stop ? stopped() : Outcome{};
    }

    CVLibarchiveReader::Input m_input;
    CVEngineHost *m_host = nullptr;
    QString m_name;
    std::optional<CVRarHeaders> m_rar;
    mutable std::vector<XADEntry> m_entries;
    mutable bool m_listed = false;
    mutable Outcome m_listing;
    bool m_extracting = false;
};

/// Takes the first bytes of a stream and stops the decoder.
class Sniffer final : public CVDecoderOutput
{
public:
    std::span<char> space() override { return std::span(m_buffer).subspan(m_used); }
    void commit(std::size_t bytes) override { m_used += bytes; }
    QByteArrayView bytes() const { return {m_buffer.data(), static_cast<qsizetype>(m_used)}; }

private:
    std::array<char, sniffBytes> m_buffer;
    std::size_t m_used = 0;
};

CVEngineDescriptor::OpenOutcome openStream(const std::shared_ptr<const CVArchiveSource> &source,
                                           CVStreamKind kind)
{
    CVDecoderInput input(*source, 0);
    Sniffer start;
    const CVDecodeResult result = cvDecodeStream(kind, input, start);
    if (result.code == XADErrorCode::NotSupported)
        return refused(result.code, result.detail);
    if (result.code == XADErrorCode::Damaged && start.bytes().isEmpty()) {
        const bool isVague = kind == CVStreamKind::Lzma || kind == CVStreamKind::Brotli;
        return refused(isVague ? XADErrorCode::NotSupported : XADErrorCode::Damaged, result.detail);
    }
    const auto format = cvLibarchiveFormat(start.bytes(), -1);
    if (format == CVLibarchiveFormat::Tar || format == CVLibarchiveFormat::Cpio)
        return opened(
            std::make_unique<Engine>(CVLibarchiveReader::Input{source, 0, kind, *format},
                                     u"%1 (%2)"_s.arg(containerName(*format), cvStreamKindName(kind))));
    return opened(std::make_unique<CVSingleFileEngine>(source, kind));
}

/// Where the payload begins: behind the lead and two headers, each an index of 16-byte items and their data.
std::optional<qint64> rpmPayload(const CVArchiveSource &source)
{
    qint64 at = 96;
    for (int header = 0; header < 2; ++header) {
        char start[16];
        if (source.readAt(at, start, sizeof start) != sizeof start ||
            !QByteArrayView(start, sizeof start).startsWith("\x8e\xad\xe8\x01"))
            return std::nullopt;
        at += 16 + qint64(16) * qFromBigEndian<std::uint32_t>(start + 8) +
              qFromBigEndian<std::uint32_t>(start + 12);
        if (header == 0)
            at = (at + 7) / 8 * 8;
    }
    return at < source.size() ? std::optional(at) : std::nullopt;
}

CVEngineDescriptor::OpenOutcome openRpm(const std::shared_ptr<const CVArchiveSource> &source)
{
    const std::optional<qint64> payload = rpmPayload(*source);
    if (!payload)
        return refused(XADErrorCode::Damaged, readingText("The header is damaged."));
    QByteArray head(sniffBytes, Qt::Uninitialized);
    head.truncate(std::max<qint64>(source->readAt(*payload, head.data(), head.size()), 0));
    const CVStreamKind kind = cvStreamKind(head);
    if (kind == CVStreamKind::None && cvLibarchiveFormat(head, -1) != CVLibarchiveFormat::Cpio)
        return refused(XADErrorCode::NotSupported, readingText("The kind of its contents is not known."));
    return opened(std::make_unique<Engine>(
        CVLibarchiveReader::Input{source, *payload, kind, CVLibarchiveFormat::Cpio}, u"RPM"_s));
}

/// Whether libarchive unpacks all of it and the result can be checked. What is refused here goes to unar.
bool isReadableRar(const CVRarHeaders &headers)
{
    if (headers.generation == 4 && headers.isSolid)
        return false;
    for (const CVRarFile &file : headers.files) {
        const bool isFile = !file.isDirectory && !file.isRedirected;
        if (file.isEncrypted)
            return false;
        if (!isFile || file.isStored)
            continue;
        if (headers.generation == 4 && file.unpackVersion < 29)
            return false;
        if (headers.generation == 5 && file.unpackVersion != 50)
            return false;
    }
    return std::all_of(headers.files.begin(), headers.files.end(), [](const CVRarFile &file) {
        return file.isDirectory || file.isRedirected || file.size == 0 ||
               (file.size > 0 && CVRarSum(file).canCompare());
    });
}

/// For formats that other engines read as well: what cannot be listed whole is left to them.
CVEngineDescriptor::OpenOutcome openListed(CVLibarchiveReader::Input input,
                                           std::optional<CVRarHeaders> headers)
{
    const CVLibarchiveFormat format = input.format;
    auto engine = std::make_unique<Engine>(std::move(input), containerName(format), std::move(headers));
    if (engine->entriesAreLazy())
        return opened(std::move(engine));
    const CVReadingEngine::Outcome listing = engine->listingOutcome();
    if (listing.code != XADErrorCode::None)
        return refused(listing.code, listing.detail);
    const std::vector<XADEntry> &entries = engine->entries();
    if (std::any_of(entries.begin(), entries.end(), [](const XADEntry &e) { return e.encrypted; }))
        return refused(XADErrorCode::NotSupported, readingText("This reader cannot decrypt it."));
    // libarchive takes some archives whose list it cannot find for empty ones.
    if (entries.empty())
        return refused(XADErrorCode::Damaged, readingText("The archive has no list of its contents."));
    return opened(std::move(engine));
}

CVEngineDescriptor::OpenOutcome openRar(const QString &path)
{
    using State = CVRarHeaders::State;
    CVRarSet set = CVRarSet::open(path);
    if (!set.source)
        return refused(XADErrorCode::Damaged, set.error);
    switch (set.headers.state) {
    case State::Good:
        break;
    case State::Damaged:
        return certainlyDamaged(readingText("The header is damaged."));
    case State::NotRar:
    case State::HeadersEncrypted:
    case State::PasswordWrong:
    case State::PasswordWrongOrDamaged:
    case State::Unsupported:
        return refused(XADErrorCode::NotSupported,
                       readingText("This kind of RAR is read by another reader."));
    }
    if (!isReadableRar(set.headers))
        return refused(XADErrorCode::NotSupported,
                       readingText("This kind of RAR is read by another reader."));
    if (set.isIncomplete())
        return certainlyDamaged(readingText("A volume of the set is missing."));
    const auto format = set.headers.generation == 5 ? CVLibarchiveFormat::Rar5 : CVLibarchiveFormat::Rar4;
    return openListed({set.source, set.offset, CVStreamKind::None, format}, std::move(set.headers));
}

CVEngineDescriptor::OpenOutcome openLha(const std::shared_ptr<const CVArchiveSource> &source, qint64 offset)
{
    if (cvCheckLha(*source, offset) == CVLhaState::Damaged)
        return certainlyDamaged(readingText("The header is damaged."));
    return openListed({source, offset, CVStreamKind::None, CVLibarchiveFormat::Lha}, std::nullopt);
}

CVEngineDescriptor::OpenOutcome openContainer(const CVArchiveProbe &probe)
{
    QString error;
    auto source = CVArchiveSource::open({probe.path}, &error);
    if (!source)
        return refused(XADErrorCode::Damaged, error);
    const QByteArrayView head(probe.head);
    if (cvIsRpm(head))
        return openRpm(source);
    if (const CVStreamKind kind = cvStreamKind(head); kind != CVStreamKind::None)
        return openStream(source, kind);
    const auto format = cvLibarchiveFormat(head, probe.fileSize);
    if (format == CVLibarchiveFormat::Rar4 || format == CVLibarchiveFormat::Rar5)
        return openRar(probe.path);
    if (format == CVLibarchiveFormat::Iso && cvIsoContinuesForEver(*source))
        return refused(XADErrorCode::Damaged, readingText("The attributes of a file go round in circles."));
    if (format == CVLibarchiveFormat::Lha)
        return openLha(source, 0);
    if (format == CVLibarchiveFormat::Cab || format == CVLibarchiveFormat::Iso)
        return openListed({source, 0, CVStreamKind::None, *format}, std::nullopt);
    if (format)
        return opened(std::make_unique<Engine>(
            CVLibarchiveReader::Input{source, 0, CVStreamKind::None, *format}, containerName(*format)));
    if (cvIsProgram(head)) {
        if (cvRarOffset(*source) > 0)
            return openRar(probe.path);
        const qint64 at = cvLhaBehindProgram(*source);
        return at > 0
                   ? openLha(source, at)
                   : refused(XADErrorCode::NotSupported, readingText("No archive is behind this program."));
    }
    return openStream(source, CVStreamKind::Brotli);
}

CVEngineDescriptor::OpenOutcome open(const CVArchiveProbe &probe, CVEngineHost &host)
{
    try {
        CVEngineDescriptor::OpenOutcome outcome = openContainer(probe);
        if (auto *const engine = dynamic_cast<Engine *>(outcome.engine.get()))
            engine->setHost(&host);
        return outcome;
    } catch (const std::bad_alloc &) {
        return refused(XADErrorCode::NotSupported, readingText("There is not enough memory."));
    }
}

} // namespace

CVEngineDescriptor cvLibarchiveEngineDescriptor()
{
    return {"libarchive", &cvLibarchiveBid, &open};
}

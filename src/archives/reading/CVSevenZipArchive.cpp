#include "archives/reading/CVSevenZipArchive.h"

#include "archives/reading/CVArchiveFiles.h"

#include "archives/reading/CVSevenZipFormats.h"

#include <QFileInfo>

#include <algorithm>
#include <array>

using namespace sevenzip;

namespace {

/// How far behind the beginning of a file a zip may start (a program or other data before it).
constexpr std::uint64_t zipStartLimit = 8U << 20;

/// Disk image, partition, file system: nothing real is deeper.
constexpr std::size_t maximumLevels = 4;

/// Buffers of the module for unpacking LZMA2 and xz with several threads. Its own default is half of
/// the memory; this lets the usual block sizes run in parallel and keeps small machines usable.
constexpr const wchar_t *parallelDecoderMemory = L"512m";

/// Formats that a person opens for what is in the file system inside. Packages (rpm, deb, msi) also
/// have a main item but show their own.
bool isDiskImage(const QByteArray &format)
{
    constexpr std::array images{"Dmg",  "GPT",  "MBR", "APM",    "VHD", "VHDX",
                                "VMDK", "QCOW", "VDI", "Sparse", "LP"};
    return std::any_of(images.begin(), images.end(), [&](const char *image) { return format == image; });
}

/// The names that a volume may have of which the module asks for `name`.
QStringList volumeNames(const QString &name)
{
    QStringList names{name};
    // The volumes of a zipx are x.zx01, x.zx02, …; the module asks for x.z01.
    if (const qsizetype mark = name.lastIndexOf(QLatin1String(".z")); mark >= 0)
        names << QStringView(name).left(mark) + QStringLiteral(".zx") + QStringView(name).mid(mark + 2);
    return names;
}

QByteArray readStream(InStream &stream, qint64 offset, qint64 size)
{
    QByteArray data;
    if (stream.Seek(offset, SEEK_SET, nullptr) != Ok)
        return data;
    data.resize(size);
    qsizetype done = 0;
    while (done < data.size()) {
        std::uint32_t got = 0;
        if (stream.Read(data.data() + done, std::uint32_t(data.size() - done), &got) != Ok || got == 0)
            break;
        done += got;
    }
    data.resize(done);
    return data;
}

} // namespace

Result cvSevenZipGivePassword(const CVSevenZipLibrary &library, const std::optional<QString> &password,
                              ModuleString *out)
{
    *out = nullptr;
    if (!password)
        return Abort;
    std::wstring text = password->toStdWString();
    *out = library.makeString(text.c_str());
    std::fill(text.begin(), text.end(), L'\0');
    return *out ? Ok : OutOfMemory;
}

CVSevenZipOpenCallback::CVSevenZipOpenCallback(const CVSevenZipLibrary &library,
                                               std::shared_ptr<const CVSevenZipSource> source,
                                               Password password, ShouldStop shouldStop)
    : m_library(library)
    , m_source(std::move(source))
    , m_password(std::move(password))
    , m_shouldStop(std::move(shouldStop))
{}

Result CVSevenZipOpenCallback::QueryInterface(const Guid &iid, void **out)
{
    if (iid == IdUnknown || iid == OpenCallback::id)
        *out = static_cast<OpenCallback *>(this);
    else if (iid == OpenVolumeCallback::id)
        *out = static_cast<OpenVolumeCallback *>(this);
    else if (iid == CryptoGetTextPassword::id)
        *out = static_cast<CryptoGetTextPassword *>(this);
    else {
        *out = nullptr;
        return NoInterface;
    }
    return Ok;
}

QStringList CVSevenZipOpenCallback::volumePaths() const
{
    QStringList paths = m_source->paths().mid(1);
    for (const auto &volume : m_volumes)
        paths << volume->source().paths();
    return paths;
}

Result CVSevenZipOpenCallback::SetTotal(const std::uint64_t *, const std::uint64_t *)
{
    return Ok;
}

Result CVSevenZipOpenCallback::SetCompleted(const std::uint64_t *, const std::uint64_t *)
{
    m_stopped = m_stopped || m_shouldStop();
    return m_stopped ? Abort : Ok;
}

Result CVSevenZipOpenCallback::GetProperty(std::uint32_t property, Variant *value)
{
    *value = {};
    switch (property) {
    case PropertyName: {
        QString name = QFileInfo(m_source->paths().first()).fileName();
        if (m_source->paths().size() > 1) // the parts joined are the file without its number
            name.truncate(name.lastIndexOf(u'.'));
        if (name.endsWith(QLatin1String(".zipx"), Qt::CaseInsensitive))
            name.chop(1); // only under this name does the module look for volumes
        value->string = m_library.makeString(name.toStdWString().c_str());
        value->type = VariantString;
        break;
    }
    case PropertyIsDirectory:
        value->type = VariantBool;
        break;
    case PropertySize:
        value->u8 = std::uint64_t(m_source->size());
        value->type = VariantU8;
        break;
    default:
        break;
    }
    return Ok;
}

Result CVSevenZipOpenCallback::GetStream(const wchar_t *name, InStream **stream)
{
    *stream = nullptr;
    const QString wanted = QString::fromWCharArray(name);
    // The name comes from the archive: it may only be that of a neighbour.
    if (wanted.isEmpty() || wanted.contains(u'/') || wanted.contains(u'\\') || wanted == u"." ||
        wanted == u"..") {
        m_missingVolume = wanted;
        return False;
    }
    const QString path = CVArchiveFiles::findBeside(m_source->paths().first(), volumeNames(wanted));
    const auto source = path.isEmpty() ? nullptr : CVSevenZipSource::open({path});
    if (!source) {
        m_missingVolume = wanted;
        return False;
    }
    m_volumes.push_back(std::make_unique<CVSevenZipInStream>(source));
    *stream = m_volumes.back().get();
    return Ok;
}

Result CVSevenZipOpenCallback::GetTextPassword(ModuleString *password)
{
    m_passwordAsked = true;
    const std::optional<QString> given = m_password();
    m_passwordMissing = !given;
    return cvSevenZipGivePassword(m_library, given, password);
}

CVSevenZipArchive::CVSevenZipArchive(const CVSevenZipLibrary &library,
                                     std::shared_ptr<const CVSevenZipSource> source,
                                     CVSevenZipOpenCallback::Password password,
                                     CVSevenZipOpenCallback::ShouldStop shouldStop)
    : m_library(library)
    , m_source(source)
    , m_stream(source)
    , m_callback(library, source, std::move(password), std::move(shouldStop))
{}

CVSevenZipArchive::~CVSevenZipArchive()
{
    // What is inside holds on to what is around it: from the innermost out.
    while (!m_levels.empty()) {
        m_levels.back().archive->Close();
        m_levels.pop_back();
    }
}

Result CVSevenZipArchive::open(const CVSevenZipLibrary::Format &format, qint64 offset, unsigned threads)
{
    CVSevenZipPointer<InArchive> archive(m_library.createArchive(format));
    if (!archive)
        return Fail;
    m_levels.clear();
    m_levels.push_back({&format, CVSevenZipPointer<InStream>(), std::move(archive)});
    setThreads(threads);
    if (m_stream.Seek(offset, SEEK_SET, nullptr) != Ok)
        return Fail;
    const std::uint64_t startLimit = format.name == "zip" ? zipStartLimit : 0;
    return m_levels.back().archive->Open(&m_stream, &startLimit, &m_callback);
}

void CVSevenZipArchive::setThreads(unsigned threads)
{
    const auto properties = m_levels.back().archive.as<SetProperties>();
    if (!properties)
        return;
    const wchar_t *const names[] = {L"mt", L"memuse"};
    Variant values[2];
    values[0].type = VariantU4;
    values[0].u4 = threads;
    values[1].type = VariantString;
    values[1].string = m_library.makeString(parallelDecoderMemory);
    // Formats without these settings refuse; they decode with one thread anyway.
    (void)properties->Set(names, values, 2);
    m_library.freeString(values[1].string);
}

void CVSevenZipArchive::descend()
{
    while (m_levels.size() < maximumLevels && descendOnce()) {
    }
}

bool CVSevenZipArchive::descendOnce()
{
    CVSevenZipValue main(m_library);
    if (!isDiskImage(topFormat().name))
        return false;
    if (top().GetArchiveProperty(PropertyMainSubfile, main.out()) != Ok || main.get().type != VariantU4)
        return false;
    const std::uint32_t item = main.get().u4;
    std::uint32_t count = 0;
    if (top().GetNumberOfItems(&count) != Ok || item >= count)
        return false;

    const auto streams = m_levels.back().archive.as<InArchiveGetStream>();
    CVSevenZipPointer<SequentialInStream> sequential;
    if (!streams || streams->GetStream(item, sequential.out()) != Ok || !sequential)
        return false;
    CVSevenZipPointer<InStream> stream = sequential.as<InStream>();
    std::uint64_t size = 0;
    if (!stream || stream->Seek(0, SEEK_END, &size) != Ok)
        return false;

    constexpr qint64 headSize = 64 * 1024;
    CVSevenZipBytes bytes;
    bytes.size = qint64(size);
    bytes.head = readStream(*stream.get(), 0, std::min(bytes.size, headSize));
    bytes.tail = readStream(*stream.get(), std::max<qint64>(0, bytes.size - headSize - 22),
                            std::min(bytes.size, headSize + 22));
    for (const CVSevenZipGuess &guess : cvSevenZipGuesses(m_library, bytes)) {
        const auto &format = m_library.formats()[std::size_t(guess.format)];
        CVSevenZipPointer<InArchive> archive(m_library.createArchive(format));
        const std::uint64_t startLimit = 0;
        if (!archive || stream->Seek(guess.offset, SEEK_SET, nullptr) != Ok ||
            archive->Open(stream.get(), &startLimit, &m_callback) != Ok)
            continue;
        m_levels.push_back({&format, std::move(stream), std::move(archive)});
        return true;
    }
    return false;
}

std::vector<const CVSevenZipLibrary::Format *> CVSevenZipArchive::formats() const
{
    std::vector<const CVSevenZipLibrary::Format *> all;
    for (const Level &level : m_levels)
        all.push_back(level.format);
    return all;
}

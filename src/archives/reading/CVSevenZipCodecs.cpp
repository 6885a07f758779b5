#include "archives/reading/CVSevenZipCodecs.h"

#include "archives/reading/CVSevenZipLibrary.h"
#include "archives/reading/CVStreamDecoders.h"

#include <QDir>
#include <QFile>
#include <QLoggingCategory>

#include <algorithm>
#include <array>
#include <atomic>
#include <limits>
#include <new>

#include <dlfcn.h>

using namespace sevenzip;

Q_LOGGING_CATEGORY(lcSevenZipCodecs, "corvane.reading.sevenzip.codecs")

namespace {

constexpr std::size_t outputBytes = 256 * 1024;

struct OwnMethod
{
    std::uint64_t id;
    const wchar_t *name;
    CVStreamKind kind;
};
constexpr std::array ownMethods{
    OwnMethod{0x4F71101, L"ZSTD", CVStreamKind::Zstd},
    OwnMethod{0x4F71102, L"BROTLI", CVStreamKind::Brotli},
    OwnMethod{0x4F71104, L"LZ4", CVStreamKind::Lz4},
};

/// Passes what a decoder makes on to the module, as much as that wants.
class ModuleOutput final : public CVDecoderOutput
{
public:
    ModuleOutput(SequentialOutStream &out, std::uint64_t wanted)
        : m_out(out)
        , m_left(wanted)
        , m_buffer(outputBytes)
    {}

    Result result() const { return m_result; }
    bool hasAll() const { return m_left == 0; }
    std::uint64_t written() const { return m_written; }

    std::span<char> space() override
    {
        if (m_result != Ok || m_left == 0)
            return {};
        return {m_buffer.data(), std::size_t(std::min<std::uint64_t>(m_left, m_buffer.size()))};
    }
    void commit(std::size_t bytes) override
    {
        for (std::size_t done = 0; done < bytes && m_result == Ok;) {
            std::uint32_t passed = 0;
            m_result = m_out.Write(m_buffer.data() + done, std::uint32_t(bytes - done), &passed);
            if (m_result == Ok && passed == 0)
                m_result = Fail;
            done += passed;
        }
        m_left -= bytes;
        m_written += bytes;
    }

private:
    SequentialOutStream &m_out;
    std::uint64_t m_left;
    std::uint64_t m_written = 0;
    std::vector<char> m_buffer;
    Result m_result = Ok;
};

/// Several threads of a packer each write a stream of their own, with its length in front.
bool skipBrotliFrame(CVDecoderInput &input)
{
    constexpr std::size_t frameSize = 16;
    constexpr std::array<unsigned char, 8> mark{0x50, 0x2A, 0x4D, 0x18, 8, 0, 0, 0};
    const auto front = input.peek(frameSize);
    if (front.size() < frameSize || !std::equal(mark.begin(), mark.end(), front.begin()))
        return false;
    input.consume(frameSize);
    return true;
}

/// One of our decoders as the module calls it. Owned by the references the module counts.
class StreamCoder final : public CompressCoder, public SetDecoderProperties
{
public:
    explicit StreamCoder(CVStreamKind kind)
        : m_kind(kind)
    {}
    StreamCoder(const StreamCoder &) = delete;
    StreamCoder &operator=(const StreamCoder &) = delete;
    virtual ~StreamCoder() = default;

    Result QueryInterface(const Guid &iid, void **out) override
    {
        *out = nullptr;
        if (iid == IdUnknown || iid == CompressCoder::id)
            *out = static_cast<CompressCoder *>(this);
        else if (iid == SetDecoderProperties::id)
            *out = static_cast<SetDecoderProperties *>(this);
        if (!*out)
            return NoInterface;
        AddRef();
        return Ok;
    }
    std::uint32_t AddRef() override { return ++m_references; }
    std::uint32_t Release() override
    {
        const std::uint32_t left = --m_references;
        if (left == 0)
            delete this;
        return left;
    }

    /// Version and level of the packer: nothing that a decoder needs.
    Result SetDecoderProperties2(const std::uint8_t *, std::uint32_t) override { return Ok; }

    Result Code(SequentialInStream *in, SequentialOutStream *out, const std::uint64_t *,
                const std::uint64_t *outSize, CompressProgress *progress) override
    {
        try {
            return decode(*in, *out, outSize ? *outSize : std::numeric_limits<std::uint64_t>::max(),
                          progress);
        } catch (const std::bad_alloc &) {
            return OutOfMemory;
        }
    }

private:
    Result decode(SequentialInStream &in, SequentialOutStream &out, std::uint64_t wanted,
                  CompressProgress *progress)
    {
        ModuleOutput output(out, wanted);
        Result trouble = Ok;
        std::uint64_t consumed = 0;
        CVDecoderInput input([&](char *to, qint64 bytes) -> qint64 {
            const std::uint64_t written = output.written();
            if (progress)
                trouble = progress->SetRatioInfo(&consumed, &written);
            std::uint32_t got = 0;
            if (trouble == Ok)
                trouble = in.Read(to, std::uint32_t(std::min<qint64>(bytes, outputBytes)), &got);
            consumed += got;
            return trouble == Ok ? qint64(got) : -1;
        });
        CVDecodeResult result;
        bool isFramed = false;
        do {
            isFramed = m_kind == CVStreamKind::Brotli && skipBrotliFrame(input);
            result = cvDecodeStream(m_kind, input, output);
        } while (isFramed && result.code == XADErrorCode::None && !input.atEnd());
        if (trouble != Ok)
            return trouble;
        if (output.result() != Ok)
            return output.result();
        if (output.hasAll())
            return Ok;
        switch (result.code) {
        case XADErrorCode::None:
            return result.trailingGarbage ? False : Ok;
        case XADErrorCode::NotSupported:
            return NotImplemented;
        default:
            return False;
        }
    }

    std::atomic<std::uint32_t> m_references = 0;
    CVStreamKind m_kind;
};

} // namespace

void CVSevenZipCodecs::loadModules(const QString &folder)
{
    const QDir modules(folder);
    for (const QString &name : modules.entryList({QStringLiteral("*.so")}, QDir::Files, QDir::Name))
        loadModule(modules.filePath(name));
}

void CVSevenZipCodecs::loadModule(const QString &path)
{
    void *const handle = dlopen(QFile::encodeName(path).constData(), RTLD_NOW | RTLD_LOCAL);
    if (!handle) {
        qCInfo(lcSevenZipCodecs, "%s", dlerror());
        return;
    }
    const auto resolve = [handle]<typename F>(const char *name, F &function) {
        function = reinterpret_cast<F>(dlsym(handle, name));
        return function != nullptr;
    };
    Method method{};
    Result (*moduleProperty)(std::uint32_t, Variant *) = nullptr;
    Result (*numberOfMethods)(std::uint32_t *) = nullptr;
    std::uint32_t count = 0;
    if (!resolve("GetMethodProperty", method.property) || !resolve("CreateDecoder", method.createDecoder) ||
        !resolve("GetNumberOfMethods", numberOfMethods) || !resolve("GetModuleProp", moduleProperty) ||
        !CVSevenZipLibrary::speaksOurInterface(moduleProperty) || numberOfMethods(&count) != Ok) {
        qCInfo(lcSevenZipCodecs, "%s has no methods for us", qUtf8Printable(path));
        dlclose(handle);
        return;
    }
    for (method.index = 0; method.index < count; ++method.index) {
        Variant value;
        if (method.property(method.index, MethodId, &value) == Ok && value.type == VariantU8) {
            method.id = value.u8;
            m_methods.push_back(method);
        }
    }
}

bool CVSevenZipCodecs::has(std::uint64_t method) const
{
    return std::any_of(m_methods.begin(), m_methods.end(), [&](const Method &m) { return m.id == method; });
}

Result CVSevenZipCodecs::QueryInterface(const Guid &iid, void **out)
{
    *out =
        iid == IdUnknown || iid == CompressCodecsInfo::id ? static_cast<CompressCodecsInfo *>(this) : nullptr;
    return *out ? Ok : NoInterface;
}

Result CVSevenZipCodecs::GetNumMethods(std::uint32_t *count)
{
    *count = std::uint32_t(ownMethods.size() + m_methods.size());
    return Ok;
}

Result CVSevenZipCodecs::GetProperty(std::uint32_t index, std::uint32_t property, Variant *value)
{
    *value = {};
    if (index >= ownMethods.size()) {
        index -= std::uint32_t(ownMethods.size());
        return index < m_methods.size() ? m_methods[index].property(m_methods[index].index, property, value)
                                        : InvalidArgument;
    }
    switch (property) {
    case MethodId:
        value->type = VariantU8;
        value->u8 = ownMethods[index].id;
        break;
    case MethodName:
        value->string = m_library.makeString(ownMethods[index].name);
        value->type = VariantString;
        break;
    case MethodEncoderIsAssigned:
        value->type = VariantBool;
        break;
    default: // one stream in, one out, a decoder, no filter
        break;
    }
    return Ok;
}

Result CVSevenZipCodecs::CreateDecoder(std::uint32_t index, const Guid *iid, void **coder)
{
    *coder = nullptr;
    if (index < ownMethods.size()) {
        auto *const own = new (std::nothrow) StreamCoder(ownMethods[index].kind);
        if (!own)
            return OutOfMemory;
        const Result result = own->QueryInterface(*iid, coder);
        if (result != Ok)
            delete own;
        return result;
    }
    index -= std::uint32_t(ownMethods.size());
    return index < m_methods.size() ? m_methods[index].createDecoder(m_methods[index].index, iid, coder)
                                    : InvalidArgument;
}

Result CVSevenZipCodecs::CreateEncoder(std::uint32_t, const Guid *, void **coder)
{
    *coder = nullptr;
    return NotImplemented;
}

#include "archives/reading/CVSevenZipLibrary.h"

#include <QFile>
#include <QFileInfo>
#include <QLoggingCategory>

#include <dlfcn.h>

#include <cstring>

using namespace sevenzip;

Q_LOGGING_CATEGORY(lcSevenZip, "corvane.reading.sevenzip")

namespace {

constexpr std::uint32_t modulePropertyInterfaceType = 0;
constexpr std::uint32_t modulePropertyVersion = 1;

template <typename F> bool resolve(void *handle, const char *name, F &function)
{
    function = reinterpret_cast<F>(dlsym(handle, name));
    return function != nullptr;
}

/// The raw bytes of a string value: the module keeps signatures and identifiers in strings.
QByteArray stringBytes(const Variant &value)
{
    if (value.type != VariantString || !value.string)
        return {};
    std::uint32_t length = 0;
    std::memcpy(&length, reinterpret_cast<const char *>(value.string) - sizeof length, sizeof length);
    return QByteArray(reinterpret_cast<const char *>(value.string), qsizetype(length));
}

} // namespace

std::uint64_t CVSevenZipValue::number(std::uint64_t otherwise) const
{
    switch (m_value.type) {
    case VariantU1:
        return m_value.u1;
    case VariantU2:
        return m_value.u2;
    case VariantU4:
        return m_value.u4;
    case VariantI4:
        return m_value.i4 < 0 ? otherwise : std::uint64_t(m_value.i4);
    case VariantU8:
        return m_value.u8;
    case VariantI8:
        return m_value.i8 < 0 ? otherwise : std::uint64_t(m_value.i8);
    default:
        return otherwise;
    }
}

QStringList CVSevenZipLibrary::candidates()
{
    const QByteArray forced = qgetenv("CORVANE_7Z_LIBRARY");
    if (!forced.isEmpty())
        return {QFile::decodeName(forced)};
    QStringList paths;
#ifdef CORVANE_7Z_LIBRARY_PATH
    if (*CORVANE_7Z_LIBRARY_PATH)
        paths << QStringLiteral(CORVANE_7Z_LIBRARY_PATH);
#endif
    QStringList roots{QStringLiteral("/usr/lib"), QStringLiteral("/usr/libexec"),
                      QStringLiteral("/usr/lib64"), QStringLiteral("/usr/local/lib"),
                      QStringLiteral("/usr/local/libexec")};
#ifdef CORVANE_MULTIARCH
    if (*CORVANE_MULTIARCH)
        roots.insert(1, QStringLiteral("/usr/lib/" CORVANE_MULTIARCH));
#endif
    for (const QString &root : std::as_const(roots)) {
        for (const char *folder : {"p7zip", "7zip", "7z"})
            paths << root + u'/' + QLatin1String(folder) + QStringLiteral("/7z.so");
    }
    return paths;
}

const CVSevenZipLibrary *CVSevenZipLibrary::instance()
{
    static const std::unique_ptr<CVSevenZipLibrary> library = [] {
        QString why;
        auto found = load(candidates(), &why);
        if (!found)
            qCInfo(lcSevenZip, "no 7-Zip library: %s", qUtf8Printable(why));
        return found;
    }();
    return library.get();
}

std::unique_ptr<CVSevenZipLibrary> CVSevenZipLibrary::load(const QStringList &candidates, QString *why)
{
    QString reason = QStringLiteral("7z.so was not found (package p7zip-full)");
    for (const QString &path : candidates) {
        if (!QFile::exists(path))
            continue;
        auto library = std::make_unique<CVSevenZipLibrary>();
        const QString problem = library->loadFrom(path);
        if (problem.isEmpty())
            return library;
        reason = path + QStringLiteral(": ") + problem;
    }
    if (why)
        *why = reason;
    return nullptr;
}

QString CVSevenZipLibrary::loadFrom(const QString &path)
{
    // Local: the module exports thousands of plain names that must not meet ours.
    m_handle = dlopen(QFile::encodeName(path).constData(), RTLD_NOW | RTLD_LOCAL);
    if (!m_handle)
        return QString::fromLocal8Bit(dlerror());

    Result (*moduleProperty)(std::uint32_t, Variant *) = nullptr;
    if (!resolve(m_handle, "CreateObject", m_createObject) ||
        !resolve(m_handle, "GetModuleProp", moduleProperty) ||
        !resolve(m_handle, "SysAllocString", m_allocateString) ||
        !resolve(m_handle, "SysFreeString", m_freeString) ||
        !resolve(m_handle, "VariantClear", m_clearVariant))
        return QStringLiteral("not a 7-Zip module");

    if (!speaksOurInterface(moduleProperty))
        return QStringLiteral("its interfaces have another layout");
    Variant value;
    if (moduleProperty(modulePropertyVersion, &value) == Ok && value.type == VariantU4)
        m_version = value.u4;

    m_path = path;
    m_codecs = std::make_unique<CVSevenZipCodecs>(*this);
    m_codecs->loadModules(QFileInfo(path).absolutePath() + QStringLiteral("/Codecs"));
    readFormats();
    return m_formats.empty() ? QStringLiteral("it knows no format") : QString();
}

bool CVSevenZipLibrary::speaksOurInterface(Result (*moduleProperty)(std::uint32_t, Variant *))
{
    Variant value;
    return moduleProperty(modulePropertyInterfaceType, &value) == Ok && value.type == VariantU4 &&
           value.u4 == 0;
}

QByteArray CVSevenZipLibrary::handlerBytes(HandlerProperty property, std::uint32_t index,
                                           std::uint32_t which) const
{
    CVSevenZipValue value(*this);
    if (property(index, which, value.out()) != Ok)
        return {};
    return stringBytes(value.get());
}

void CVSevenZipLibrary::readFormats()
{
    Result (*numberOfFormats)(std::uint32_t *) = nullptr;
    HandlerProperty property = nullptr;
    Result (*isArchiveOf)(std::uint32_t, std::uint32_t(**)(const std::uint8_t *, std::size_t)) = nullptr;
    std::uint32_t count = 0;
    if (!resolve(m_handle, "GetNumberOfFormats", numberOfFormats) ||
        !resolve(m_handle, "GetHandlerProperty2", property) || numberOfFormats(&count) != Ok)
        return;
    resolve(m_handle, "GetIsArc", isArchiveOf);

    for (std::uint32_t i = 0; i < count; ++i) {
        Format format;
        CVSevenZipValue value(*this);
        if (property(i, HandlerName, value.out()) != Ok || !value.isString())
            continue;
        format.name = value.string().toUtf8();
        const QByteArray classId = handlerBytes(property, i, HandlerClass);
        if (classId.size() != qsizetype(sizeof format.classId))
            continue;
        std::memcpy(&format.classId, classId.constData(), sizeof format.classId);

        if (const QByteArray signature = handlerBytes(property, i, HandlerSignature); !signature.isEmpty())
            format.signatures.push_back(signature);
        // Several signatures: each after a byte with its length.
        const QByteArray several = handlerBytes(property, i, HandlerMultiSignature);
        for (qsizetype at = 0; at < several.size();) {
            const qsizetype length = quint8(several[at]);
            if (length == 0 || at + 1 + length > several.size())
                break;
            format.signatures.push_back(several.mid(at + 1, length));
            at += 1 + length;
        }
        if (property(i, HandlerSignatureOffset, value.out()) == Ok)
            format.signatureOffset = std::uint32_t(value.number());
        if (property(i, HandlerFlags, value.out()) == Ok)
            format.findsSignature = (value.number() & HandlerFindsSignature) != 0;
        if (isArchiveOf)
            isArchiveOf(i, &format.isArchive);
        m_formats.push_back(std::move(format));
    }
}

int CVSevenZipLibrary::indexOfFormat(const char *name) const
{
    for (std::size_t i = 0; i < m_formats.size(); ++i) {
        if (m_formats[i].name == name)
            return int(i);
    }
    return -1;
}

InArchive *CVSevenZipLibrary::createArchive(const Format &format) const
{
    void *object = nullptr;
    if (m_createObject(&format.classId, &InArchive::id, &object) != Ok)
        return nullptr;
    auto *const archive = static_cast<InArchive *>(object);
    void *found = nullptr;
    if (archive->QueryInterface(SetCompressCodecsInfo::id, &found) == Ok) {
        const CVSevenZipPointer<SetCompressCodecsInfo> user(static_cast<SetCompressCodecsInfo *>(found));
        (void)user->SetCodecs(m_codecs.get());
    }
    return archive;
}

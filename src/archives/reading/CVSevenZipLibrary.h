#pragma once

#include "archives/reading/CVSevenZipCodecs.h"
#include "archives/reading/SevenZipInterfaces.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <cstdint>
#include <memory>
#include <span>
#include <utility>
#include <vector>

/// The 7-Zip module of this machine, loaded once and never unloaded (objects of it may outlive any
/// owner we could name). Immutable after loading; all threads may use it.
class CVSevenZipLibrary
{
public:
    struct Format
    {
        QByteArray name; ///< as the module calls it: "7z", "zip", "Cab", …
        sevenzip::Guid classId{};
        std::vector<QByteArray> signatures; ///< any of them; none for formats without a mark
        std::uint32_t signatureOffset = 0;
        bool findsSignature = false; ///< looks for its mark behind a self-extractor's program itself
        std::uint32_t (*isArchive)(const std::uint8_t *data, std::size_t size) = nullptr; ///< may be null
    };

    /// What isArchive answers.
    enum Answer : std::uint32_t { No = 0, Yes = 1, NeedsMore = 2 };

    /// Knows nothing yet; use instance() or load().
    CVSevenZipLibrary() = default;

    /// The module from the environment variable CORVANE_7Z_LIBRARY (then only that one), the path
    /// given to the build, or the usual folders. Null when there is none that we can talk to.
    static const CVSevenZipLibrary *instance();

    /// The first of `candidates` that loads and speaks our interface; null when none does, with the
    /// last reason in `why`.
    static std::unique_ptr<CVSevenZipLibrary> load(const QStringList &candidates, QString *why = nullptr);

    /// Where instance() looks, in order.
    static QStringList candidates();

    const QString &path() const { return m_path; }
    /// Major version in the high, minor in the low 16 bits.
    std::uint32_t version() const { return m_version; }
    std::span<const Format> formats() const { return m_formats; }
    /// Methods from outside of the module; null before loading.
    const CVSevenZipCodecs *codecs() const { return m_codecs.get(); }
    /// Whether the interfaces of a module have the layout that we know, by what it says of itself. To be
    /// asked before the first virtual call: the other layout has two more functions in every table.
    static bool speaksOurInterface(sevenzip::Result (*moduleProperty)(std::uint32_t, sevenzip::Variant *));
    /// Position in formats(), or -1.
    int indexOfFormat(const char *name) const;

    /// A new, closed archive object of that format; null when the module refuses. The caller releases.
    sevenzip::InArchive *createArchive(const Format &format) const;
    /// Null on lack of memory; freed by the module that receives it.
    sevenzip::ModuleString makeString(const wchar_t *text) const { return m_allocateString(text); }
    void freeString(sevenzip::ModuleString text) const { m_freeString(text); }
    void clear(sevenzip::Variant &value) const { m_clearVariant(&value); }

private:
    QString loadFrom(const QString &path);
    void readFormats();

    using HandlerProperty = sevenzip::Result (*)(std::uint32_t, std::uint32_t, sevenzip::Variant *);
    QByteArray handlerBytes(HandlerProperty property, std::uint32_t index, std::uint32_t which) const;

    QString m_path;
    void *m_handle = nullptr;
    std::uint32_t m_version = 0;
    std::vector<Format> m_formats;
    std::unique_ptr<CVSevenZipCodecs> m_codecs;
    sevenzip::Result (*m_createObject)(const sevenzip::Guid *, const sevenzip::Guid *, void **) = nullptr;
    sevenzip::ModuleString (*m_allocateString)(const wchar_t *) = nullptr;
    void (*m_freeString)(sevenzip::ModuleString) = nullptr;
    sevenzip::Result (*m_clearVariant)(sevenzip::Variant *) = nullptr;
};

/// A value of the module, freed at the end of its life.
class CVSevenZipValue
{
public:
    explicit CVSevenZipValue(const CVSevenZipLibrary &library)
        : m_library(library)
    {}
    CVSevenZipValue(const CVSevenZipValue &) = delete;
    CVSevenZipValue &operator=(const CVSevenZipValue &) = delete;
    ~CVSevenZipValue() { reset(); }

    /// For a call that fills it in.
    sevenzip::Variant *out()
    {
        reset();
        return &m_value;
    }
    const sevenzip::Variant &get() const { return m_value; }
    bool isTrue() const { return m_value.type == sevenzip::VariantBool && m_value.boolean != 0; }
    bool isString() const { return m_value.type == sevenzip::VariantString && m_value.string; }
    bool isEmpty() const { return m_value.type == sevenzip::VariantEmpty; }
    /// `otherwise` when it is no whole number.
    std::uint64_t number(std::uint64_t otherwise = 0) const;
    QString string() const { return isString() ? QString::fromWCharArray(m_value.string) : QString(); }

private:
    void reset()
    {
        if (m_value.type == sevenzip::VariantString)
            m_library.clear(m_value);
        m_value = {};
    }

    const CVSevenZipLibrary &m_library;
    sevenzip::Variant m_value;
};

/// Holds one reference to an object of the module.
template <typename T> class CVSevenZipPointer
{
public:
    explicit CVSevenZipPointer(T *object = nullptr)
        : m_object(object)
    {}
    CVSevenZipPointer(CVSevenZipPointer &&other) noexcept
        : m_object(std::exchange(other.m_object, nullptr))
    {}
    CVSevenZipPointer &operator=(CVSevenZipPointer other) noexcept
    {
        std::swap(m_object, other.m_object);
        return *this;
    }
    ~CVSevenZipPointer()
    {
        if (m_object)
            m_object->Release();
    }

    T *get() const { return m_object; }
    T *operator->() const { return m_object; }
    explicit operator bool() const { return m_object != nullptr; }
    T **out()
    {
        *this = CVSevenZipPointer();
        return &m_object;
    }

    /// The same object's other interface; null when it has none.
    template <typename Other> CVSevenZipPointer<Other> as() const
    {
        void *found = nullptr;
        if (m_object && m_object->QueryInterface(Other::id, &found) == sevenzip::Ok)
            return CVSevenZipPointer<Other>(static_cast<Other *>(found));
        return CVSevenZipPointer<Other>();
    }

private:
    T *m_object;
};

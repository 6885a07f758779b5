#pragma once

#include <cstddef>
#include <cstdint>

/// The binary interface of the 7-Zip module, as far as we call it or are called by it.
///
/// The layout is that of plain abstract classes: three functions of Unknown, then those of each
/// interface in order. The module's own base has no virtual destructor (CVSevenZipLibrary asks the
/// module and refuses one that differs), so none is declared here; our implementations add theirs
/// in the most derived class, behind everything the module knows about.
namespace sevenzip {

using Result = std::int32_t;
using Bool = std::int32_t;

inline constexpr Result Ok = 0;
inline constexpr Result False = 1; ///< on opening: not this format, or wrong password
inline constexpr Result NotImplemented = static_cast<Result>(0x80004001);
inline constexpr Result NoInterface = static_cast<Result>(0x80004002);
inline constexpr Result Abort = static_cast<Result>(0x80004004);
inline constexpr Result Fail = static_cast<Result>(0x80004005);
inline constexpr Result OutOfMemory = static_cast<Result>(0x8007000E);
inline constexpr Result InvalidArgument = static_cast<Result>(0x80070057);

struct Guid
{
    std::uint32_t data1;
    std::uint16_t data2;
    std::uint16_t data3;
    std::uint8_t data4[8];

    bool operator==(const Guid &) const = default;
};
static_assert(sizeof(Guid) == 16);

constexpr Guid interfaceGuid(std::uint8_t group, std::uint8_t member)
{
    return {0x23170F69, 0x40C1, 0x278A, {0, 0, 0, group, 0, member, 0, 0}};
}

/// A string of the module: wchar_t with its length in bytes before it. Made and freed by the module.
using ModuleString = wchar_t *;

enum VariantType : std::uint16_t {
    VariantEmpty = 0,
    VariantString = 8,
    VariantError = 10,
    VariantBool = 11,
    VariantU1 = 17,
    VariantU2 = 18,
    VariantU4 = 19,
    VariantI4 = 3,
    VariantI8 = 20,
    VariantU8 = 21,
    VariantFileTime = 64,
};

struct Variant
{
    std::uint16_t type = VariantEmpty;
    std::uint16_t timePrecision = 0; ///< of a file time: 0 when not said
    std::uint16_t nanoseconds = 0;   ///< of a file time: 0-99, below its 100 ns unit
    std::uint16_t reserved = 0;
    union
    {
        std::uint64_t u8 = 0;
        std::int64_t i8;
        std::uint32_t u4;
        std::int32_t i4;
        std::uint16_t u2;
        std::uint8_t u1;
        std::int16_t boolean;
        ModuleString string;
    };
};
static_assert(sizeof(Variant) == 16 && offsetof(Variant, u8) == 8);

enum Property : std::uint32_t {
    PropertyMainSubfile = 1,
    PropertyPath = 3,
    PropertyName = 4,
    PropertyIsDirectory = 6,
    PropertySize = 7,
    PropertyAttributes = 9,
    PropertyModified = 12,
    PropertyEncrypted = 15,
    PropertyCrc = 19,
    PropertyMethod = 22,
    PropertyBlock = 27,
    PropertyCharacteristics = 47,
    PropertyPosixMode = 53,
    PropertySymlink = 54,
    PropertyError = 55,
    PropertyIsAlternateStream = 63,
    PropertyIsAuxiliary = 64,
    PropertyIsDeleted = 65,
    PropertyErrorFlags = 71,
    PropertyWarningFlags = 72,
    PropertyPhysicalSize = 44,
    PropertyHardLink = 90,
};

enum ErrorFlag : std::uint32_t {
    ErrorIsNotArchive = 1U << 0,
    ErrorHeaders = 1U << 1,
    ErrorEncryptedHeaders = 1U << 2,
    ErrorUnavailableStart = 1U << 3,
    ErrorUnconfirmedStart = 1U << 4,
    ErrorUnexpectedEnd = 1U << 5,
    ErrorDataAfterEnd = 1U << 6,
    ErrorUnsupportedMethod = 1U << 7,
    ErrorUnsupportedFeature = 1U << 8,
    ErrorData = 1U << 9,
    ErrorCrc = 1U << 10,
};

enum AskMode : std::int32_t { AskExtract = 0 };

enum OperationResult : std::int32_t {
    OperationOk = 0,
    OperationUnsupportedMethod = 1,
    OperationDataError = 2,
    OperationCrcError = 3,
    OperationUnavailable = 4,
    OperationUnexpectedEnd = 5,
    OperationDataAfterEnd = 6,
    OperationIsNotArchive = 7,
    OperationHeadersError = 8,
    OperationWrongPassword = 9,
    OperationMemoryError = 10,
};

/// What GetHandlerProperty2 is asked for.
enum HandlerProperty : std::uint32_t {
    HandlerName = 0,
    HandlerClass = 1,
    HandlerSignature = 6,
    HandlerMultiSignature = 7,
    HandlerSignatureOffset = 8,
    HandlerFlags = 11,
};
inline constexpr std::uint32_t HandlerFindsSignature = 1U << 3;

struct Unknown
{
    virtual Result QueryInterface(const Guid &iid, void **out) = 0;
    virtual std::uint32_t AddRef() = 0;
    virtual std::uint32_t Release() = 0;

protected:
    ~Unknown() = default;
};
inline constexpr Guid IdUnknown{0, 0, 0, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};

struct SequentialInStream : Unknown
{
    static constexpr Guid id = interfaceGuid(3, 1);
    virtual Result Read(void *data, std::uint32_t size, std::uint32_t *processed) = 0;

protected:
    ~SequentialInStream() = default;
};

struct SequentialOutStream : Unknown
{
    static constexpr Guid id = interfaceGuid(3, 2);
    virtual Result Write(const void *data, std::uint32_t size, std::uint32_t *processed) = 0;

protected:
    ~SequentialOutStream() = default;
};

struct InStream : SequentialInStream
{
    static constexpr Guid id = interfaceGuid(3, 3);
    virtual Result Seek(std::int64_t offset, std::uint32_t origin, std::uint64_t *newPosition) = 0;

protected:
    ~InStream() = default;
};

struct StreamGetSize : Unknown
{
    static constexpr Guid id = interfaceGuid(3, 6);
    virtual Result GetSize(std::uint64_t *size) = 0;

protected:
    ~StreamGetSize() = default;
};

struct Progress : Unknown
{
    static constexpr Guid id = interfaceGuid(0, 5);
    virtual Result SetTotal(std::uint64_t total) = 0;
    virtual Result SetCompleted(const std::uint64_t *completed) = 0;

protected:
    ~Progress() = default;
};

struct OpenCallback : Unknown
{
    static constexpr Guid id = interfaceGuid(6, 0x10);
    virtual Result SetTotal(const std::uint64_t *files, const std::uint64_t *bytes) = 0;
    virtual Result SetCompleted(const std::uint64_t *files, const std::uint64_t *bytes) = 0;

protected:
    ~OpenCallback() = default;
};

/// Asked for the name of the file that is open and for the other volumes by name.
struct OpenVolumeCallback : Unknown
{
    static constexpr Guid id = interfaceGuid(6, 0x30);
    virtual Result GetProperty(std::uint32_t property, Variant *value) = 0;
    virtual Result GetStream(const wchar_t *name, InStream **stream) = 0;

protected:
    ~OpenVolumeCallback() = default;
};

struct CryptoGetTextPassword : Unknown
{
    static constexpr Guid id = interfaceGuid(5, 0x10);
    virtual Result GetTextPassword(ModuleString *password) = 0;

protected:
    ~CryptoGetTextPassword() = default;
};

struct ExtractCallback : Progress
{
    static constexpr Guid id = interfaceGuid(6, 0x20);
    virtual Result GetStream(std::uint32_t index, SequentialOutStream **stream, std::int32_t askMode) = 0;
    virtual Result PrepareOperation(std::int32_t askMode) = 0;
    virtual Result SetOperationResult(std::int32_t result) = 0;

protected:
    ~ExtractCallback() = default;
};

struct CompressProgress : Unknown
{
    static constexpr Guid id = interfaceGuid(4, 4);
    virtual Result SetRatioInfo(const std::uint64_t *in, const std::uint64_t *out) = 0;

protected:
    ~CompressProgress() = default;
};

struct CompressCoder : Unknown
{
    static constexpr Guid id = interfaceGuid(4, 5);
    /// Sizes may be null; `outSize` is what is wanted, which may be less than there is.
    virtual Result Code(SequentialInStream *in, SequentialOutStream *out, const std::uint64_t *inSize,
                        const std::uint64_t *outSize, CompressProgress *progress) = 0;

protected:
    ~CompressCoder() = default;
};

struct SetDecoderProperties : Unknown
{
    static constexpr Guid id = interfaceGuid(4, 0x22);
    virtual Result SetDecoderProperties2(const std::uint8_t *data, std::uint32_t size) = 0;

protected:
    ~SetDecoderProperties() = default;
};

enum MethodProperty : std::uint32_t {
    MethodId = 0,
    MethodName = 1,
    MethodEncoderIsAssigned = 8,
};

/// Methods from outside of the module.
struct CompressCodecsInfo : Unknown
{
    static constexpr Guid id = interfaceGuid(4, 0x60);
    virtual Result GetNumMethods(std::uint32_t *count) = 0;
    virtual Result GetProperty(std::uint32_t index, std::uint32_t property, Variant *value) = 0;
    virtual Result CreateDecoder(std::uint32_t index, const Guid *iid, void **coder) = 0;
    virtual Result CreateEncoder(std::uint32_t index, const Guid *iid, void **coder) = 0;

protected:
    ~CompressCodecsInfo() = default;
};

/// Archive objects that use them.
struct SetCompressCodecsInfo : Unknown
{
    static constexpr Guid id = interfaceGuid(4, 0x61);
    virtual Result SetCodecs(CompressCodecsInfo *codecs) = 0;

protected:
    ~SetCompressCodecsInfo() = default;
};

struct InArchive : Unknown
{
    static constexpr Guid id = interfaceGuid(6, 0x60);
    virtual Result Open(InStream *stream, const std::uint64_t *maxCheckStartPosition,
                        OpenCallback *callback) = 0;
    virtual Result Close() = 0;
    virtual Result GetNumberOfItems(std::uint32_t *count) = 0;
    virtual Result GetProperty(std::uint32_t index, std::uint32_t property, Variant *value) = 0;
    /// indices null and count 0xFFFFFFFF: every item; otherwise ascending.
    virtual Result Extract(const std::uint32_t *indices, std::uint32_t count, std::int32_t testMode,
                           ExtractCallback *callback) = 0;
    virtual Result GetArchiveProperty(std::uint32_t property, Variant *value) = 0;

protected:
    ~InArchive() = default;
};

/// Gives an item as a stream, for archives inside archives (a file system inside a disk image).
struct InArchiveGetStream : Unknown
{
    static constexpr Guid id = interfaceGuid(6, 0x40);
    virtual Result GetStream(std::uint32_t index, SequentialInStream **stream) = 0;

protected:
    ~InArchiveGetStream() = default;
};

struct SetProperties : Unknown
{
    static constexpr Guid id = interfaceGuid(6, 3);
    virtual Result Set(const wchar_t *const *names, const Variant *values, std::uint32_t count) = 0;

protected:
    ~SetProperties() = default;
};

} // namespace sevenzip

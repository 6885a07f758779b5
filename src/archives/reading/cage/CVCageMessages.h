#pragma once

#include "archives/reading/CVReadingEngine.h"

#include <QByteArray>
#include <QDataStream>

#include <array>
#include <cstdint>

/// What the program and a reader say to each other about one archive. The program commands, the reader
/// reports; while it works on a command it may want something, which the program answers at once. Data goes
/// another way, see CVCageMemory. Whatever comes from the reader may have been written by the archive.
namespace CVCage {

/// One message, in bytes; longer ones are a fault of the sender.
constexpr qsizetype maxMessageBytes = qsizetype(128) << 10;
/// A list of entries up to this size travels inside a message, a longer one in a file in memory.
constexpr qsizetype maxInlineListBytes = qsizetype(64) << 10;
/// Of a text for the person.
constexpr qsizetype maxTextBytes = 4096;
/// Of one list: enough for ten million entries of ordinary names.
constexpr qint64 maxListBytes = qint64(2) << 30;
/// Of one list. What the program keeps of each takes more room than what it was sent.
constexpr qint64 maxEntries = 20'000'000;
/// More engines than there are.
constexpr int maxEngines = 16;

enum class Command : std::uint8_t {
    Begin = 1, ///< name, size; with the archive, the memory and the streams → Bids
    Open,      ///< number of the engine; with a file for the list → Opened or NotOpened
    List,      ///< with a file for the list → Listed
    Extract,   ///< all, how many; with a file of indices → Ended
};

enum class Report : std::uint8_t {
    Bids = 1,   ///< one number for each engine
    Opened,     ///< Opening, Listing
    NotOpened,  ///< code, text, whether the damage is certain
    Listed,     ///< Listing
    Ended,      ///< Outcome, whether damage is final
    Volume,     ///< name, whether in any case → whether there is one, its name; with the file
    Password,   ///< → whether there is one, the password
    StreamUsed, ///< its number; no answer
};

/// What an engine says of an archive that it opened.
struct Opening
{
    QString format;
    bool isEncrypted = false;
    bool isLazy = false;
    bool isDamageFinal = true;
    bool measuresProgress = false;
    qint64 declaredTotal = 0;
};

/// A list of entries, in the message or in the file.
struct Listing
{
    CVReadingEngine::Outcome outcome;
    qint64 count = 0;
    qint64 bytes = 0;
    bool isInline = true;
    QByteArray inlineBytes;
};

// Writing. Texts are cut to what is allowed.
void put(QDataStream &to, const QString &text);
void put(QDataStream &to, const CVReadingEngine::Outcome &outcome);
void put(QDataStream &to, const Opening &opening);
void put(QDataStream &to, const Listing &listing);

// Reading. False when it makes no sense.
bool take(QDataStream &from, QString &text);
bool take(QDataStream &from, bool &value);
bool take(QDataStream &from, XADErrorCode &code);
bool take(QDataStream &from, CVReadingEngine::Outcome &outcome);
bool take(QDataStream &from, Opening &opening);
bool take(QDataStream &from, Listing &listing);

/// Whether it is one of the codes.
bool isCode(int code);

} // namespace CVCage

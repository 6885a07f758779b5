#pragma once

#include "archives/reading/cage/CVCageSocket.h"
#include "util/LXResult.h"

#include <QByteArray>

#include <mutex>

#include <sys/types.h>

/// The program's hold on the process that readers are forked from: started at the first need, and again when
/// it has died or another reader was configured. Thread: any.
class CVReaderServer
{
public:
    static CVReaderServer &instance();
    ~CVReaderServer();

    /// A new reader at the other end of the conversation, for one archive.
    struct Reader
    {
        CVCageSocket conversation;
        CVCageSocket news; ///< see cvServeReaders()
    };
    LXResult<Reader> start();

private:
    CVReaderServer() = default;
    LXResult<void> launch(const QString &program);
    void forget();

    std::mutex m_mutex;
    QString m_program;
    QByteArray m_settings; ///< of the environment, that its libraries were chosen by
    CVCageSocket m_requests;
    pid_t m_process = -1;
};

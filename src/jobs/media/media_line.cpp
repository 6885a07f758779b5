#include "jobs/media/media_line.h"

QByteArray mediaLine(const QList<QByteArray> &fields)
{
    QList<QByteArray> encoded;
    for (const QByteArray &field : fields)
        encoded << field.toPercentEncoding();
    return encoded.join('\t') + '\n';
}

QList<QByteArray> fieldsOfMediaLine(const QByteArray &line)
{
    QList<QByteArray> fields = line.split('\t');
    for (QByteArray &field : fields)
        field = QByteArray::fromPercentEncoding(field);
    return fields;
}

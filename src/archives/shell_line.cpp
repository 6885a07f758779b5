#include "archives/shell_line.h"

QString inShellQuotes(QString text)
{
    for (const QChar special : {QChar(u'\\'), QChar(u'"'), QChar(u'$'), QChar(u'`')})
        text.replace(special, QString(u'\\') + special);
    return u'"' + text + u'"';
}

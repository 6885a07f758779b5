#include "util/unique_string.h"

#include <QUuid>

QString uniqueString()
{
    return QUuid::createUuid().toString(QUuid::WithoutBraces);
}

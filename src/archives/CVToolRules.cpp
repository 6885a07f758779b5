#include "archives/CVToolRules.h"

#include "archives/CVToolPaths.h"

#include <QProcessEnvironment>
#include <QStandardPaths>

#include <algorithm>

LXConfinementRules CVToolRules::single()
{
    LXConfinementRules rules;
    // Where a system keeps its libraries apart from /usr they are in the folders after it. Look-ups of users,
    // of the machine and of character sets go to the others; none of them holds a file of the person.
    for (const char *folder : {"/usr", "/lib", "/lib64", "/bin", "/etc", "/proc", "/sys/devices/system/cpu",
                               "/dev/urandom", "/dev/random"})
        rules.readable += QString::fromLatin1(folder);
    rules.readable += CVToolPaths::resourcesFolder();
    return rules;
}

LXConfinementRules CVToolRules::line(const QStringList &programs)
{
    LXConfinementRules rules = single();
    rules.mayFork = true;
    rules.executable = {QStringLiteral("/bin/sh")}; // by which tar starts its filters, too
    for (const QString &program : programs) {
        const QString path = program.contains(u'/') ? program : QStandardPaths::findExecutable(program);
        if (!path.isEmpty())
            rules.executable += path;
    }
    const QStringList names = QProcessEnvironment::systemEnvironment().keys();
    if (std::any_of(names.begin(), names.end(), [](const QString &name) {
            return name.startsWith(u"CORVANE_TOOL_") || name.startsWith(u"CORVANE_REAL_");
        })) {
        rules.readable += QStringLiteral("/");
        rules.executable += QStringLiteral("/");
    }
    return rules;
}

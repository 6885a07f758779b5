#include "platform/desktop/LXGioApplications.h"

#include "platform/LXFileUri.h"

#include <QLoggingCategory>

#include <gio/gdesktopappinfo.h>
#include <gio/gio.h>

#include <memory>

using namespace Qt::StringLiterals;

namespace {

Q_LOGGING_CATEGORY(log, "corvane.desktop.applications")

struct Unref
{
    void operator()(gpointer object) const { g_object_unref(object); }
};
template <typename T> using Owned = std::unique_ptr<T, Unref>;

/// Takes the error over.
LXError changeFailed(GError *error)
{
    LXError result{.domain = u"CorvaneErrorDomain"_s,
                   .code = error != nullptr ? error->code : 1,
                   .description = u"The default application could not be changed."_s,
                   .reason = error != nullptr ? QString::fromUtf8(error->message) : QString(),
                   .suggestion = {}};
    g_clear_error(&error);
    return result;
}

Owned<GAppInfo> applicationNamed(const QString &name)
{
    GDesktopAppInfo *info = g_desktop_app_info_new(name.toUtf8().constData());
    return Owned<GAppInfo>(info != nullptr ? G_APP_INFO(info) : nullptr);
}

} // namespace

QString LXGioApplications::defaultApplication(const QString &mimeType)
{
    const Owned<GAppInfo> info(g_app_info_get_default_for_type(mimeType.toUtf8().constData(), FALSE));
    return info ? QString::fromUtf8(g_app_info_get_id(info.get())) : QString();
}

QStringList LXGioApplications::applications(const QString &mimeType)
{
    QStringList names;
    const QString first = defaultApplication(mimeType);
    if (!first.isEmpty())
        names.append(first);
    GList *list = g_app_info_get_recommended_for_type(mimeType.toUtf8().constData());
    for (const GList *item = list; item != nullptr; item = item->next) {
        const QString name = QString::fromUtf8(g_app_info_get_id(static_cast<GAppInfo *>(item->data)));
        if (!name.isEmpty() && !names.contains(name))
            names.append(name);
    }
    g_list_free_full(list, g_object_unref);
    return names;
}

LXResult<void> LXGioApplications::setDefaultApplication(const QString &application, const QString &mimeType)
{
    const Owned<GAppInfo> info = applicationNamed(application);
    GError *error = nullptr;
    if (!info || !g_app_info_set_as_default_for_type(info.get(), mimeType.toUtf8().constData(), &error))
        return changeFailed(error);
    return {};
}

LXResult<void> LXGioApplications::withdraw(const QString &application, const QString &mimeType)
{
    QStringList others = applications(mimeType);
    if (!others.contains(application))
        return {};
    others.removeAll(application);
    if (!others.isEmpty())
        return setDefaultApplication(others.constFirst(), mimeType);

    // The only one that could open it: the default one in any case, so the list has to say that it is not.
    const Owned<GAppInfo> info = applicationNamed(application);
    const QByteArray type = mimeType.toUtf8();
    GError *error = nullptr;
    g_app_info_reset_type_associations(type.constData());
    if (!info || !g_app_info_remove_supports_type(info.get(), type.constData(), &error))
        return changeFailed(error);
    return {};
}

bool LXGioApplications::launch(const QString &mimeType, const QString &path)
{
    const Owned<GAppInfo> info(g_app_info_get_default_for_type(mimeType.toUtf8().constData(), FALSE));
    if (!info)
        return false;
    const QByteArray uri = LXFileUri::uriOfPath(path);
    GList uris = {const_cast<char *>(uri.constData()), nullptr, nullptr};
    const Owned<GAppLaunchContext> context(g_app_launch_context_new());
    GError *error = nullptr;
    if (g_app_info_launch_uris(info.get(), &uris, context.get(), &error))
        return true;
    qCDebug(log) << "not opened:" << (error != nullptr ? error->message : "");
    g_clear_error(&error);
    return false;
}

#include "engine/model/CVSplitOperationDataBinding.h"

#include <QCoreApplication>

#include <array>

using namespace Qt::StringLiterals;

QString CVSplitOperationDataBinding::compressionSettingDescription() const
{
    static constexpr std::array texts = {
        QT_TRANSLATE_NOOP("CVSplitOperationDataBinding", "No compression"),
        QT_TRANSLATE_NOOP("CVSplitOperationDataBinding", "Bzip compression"),
        QT_TRANSLATE_NOOP("CVSplitOperationDataBinding", "7zip compression"),
    };
    if (m_compressionSetting >= texts.size())
        return {};
    return QCoreApplication::translate("CVSplitOperationDataBinding", texts.at(m_compressionSetting));
}

std::span<const CVOperationDataBinding::Dependency> CVSplitOperationDataBinding::dependencies() const
{
    static constexpr std::array table = {
        Dependency{"compressionSettingDescription"_L1, "compressionSetting"_L1}};
    return table;
}

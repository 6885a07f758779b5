#pragma once

#include "engine/model/CVOperationDataBinding.h"

#include "split/CVFileSplitter.h"

#include <QString>

#include <memory>

/// How a file is to be split.
class CVSplitOperationDataBinding : public CVOperationDataBinding
{
public:
    /// What does it, with its sizes; never null.
    const std::shared_ptr<CVFileSplitter> &splitter() const { return m_splitter; }

    /// 0 plain parts, 1 bzip2 parts, 2 a multi-part 7-Zip archive instead.
    unsigned compressionSetting() const { return m_compressionSetting; }
    void setCompressionSetting(unsigned setting)
    {
        change(m_compressionSetting, setting, QStringLiteral("compressionSetting"));
    }
    /// Derived; empty for larger values.
    QString compressionSettingDescription() const;

protected:
    std::span<const Dependency> dependencies() const override;

private:
    const std::shared_ptr<CVFileSplitter> m_splitter = std::make_shared<CVFileSplitter>();
    unsigned m_compressionSetting = 0;
};

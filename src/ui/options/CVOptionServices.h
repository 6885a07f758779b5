#pragma once

#include "engine/model/CVOperationDataBinding.h"
#include "filetree/CVFileNode.h"

#include <QString>

#include <functional>
#include <memory>

/// What an option screen needs of the window's controller. Called on the main thread; what is empty is not
/// there.
struct CVOptionServices
{
    /// Told of changes of format.
    std::weak_ptr<CVOperationDataBindingDelegate> bindingDelegate;
    /// The root of what the window works on.
    std::function<CVFileNode::Pointer()> inputFiles;
    /// Starts the job with the screen's settings, or does nothing where they do not fit.
    std::function<void()> start;
    /// Without these, the format that needs the tool is offered only where the tool is there.
    std::function<void()> installRar;
    std::function<void(const QString &path)> installRarFromFile;
    std::function<void()> activateApp;
};

#include "engine/model/CVRarToolStatus.h"

#include <utility>

namespace {

std::shared_ptr<CVRarToolStatus> &instance()
{
    static auto status = std::make_shared<CVRarToolStatus>();
    return status;
}

} // namespace

std::shared_ptr<CVRarToolStatus> CVRarToolStatus::shared()
{
    return instance();
}

void CVRarToolStatus::setShared(std::shared_ptr<CVRarToolStatus> status)
{
    instance() = status ? std::move(status) : std::make_shared<CVRarToolStatus>();
}

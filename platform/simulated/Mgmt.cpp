#include "platform/Mgmt.h"

#include <cerrno>

XCode KtEventSync::lock() {
    if (mutex_.try_lock()) {
        return XCode::SUCCESS;
    }
    // No message: callers retry at once, and a bare code costs no allocation.
    return XCode::family(XCode::ERRNO_FAMILY, EBUSY);
}

void KtEventSync::unlock() {
    mutex_.unlock();
}

namespace MGMT {

IManagement& INSTANCE() {
    static IManagement management;
    return management;
}

}  // namespace MGMT

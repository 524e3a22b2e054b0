#include "kxCancelInterface.h"

namespace kx
{
namespace
{
// Another thread may set the flag; volatile keeps every poll a real read.
inline bool flagSet(const char* flag)
{
    return *static_cast<const volatile char*>(flag) != 0;
}
} // namespace

kxCancelInterfaceReadOnly::~kxCancelInterfaceReadOnly() = default;
kxCancelInterface::~kxCancelInterface() = default;

kxCancelInterfaceProxyReadOnly::kxCancelInterfaceProxyReadOnly(const char* flag,
                                                               const kxCancelInterfaceReadOnly* parent)
    : mFlag(flag), mParent(parent)
{
}

kxCancelInterfaceProxyReadOnly::~kxCancelInterfaceProxyReadOnly() = default;

bool kxCancelInterfaceProxyReadOnly::shouldCancel() const
{
    if (mFlag && flagSet(mFlag))
        return true;
    return mParent ? mParent->shouldCancel() : false;
}

kxCancelInterfaceProxy::kxCancelInterfaceProxy(kxCancelInterface* parent, const kxCancelInterfaceReadOnly* additional)
    : mOwnFlag(0), mFlag(&mOwnFlag), mParent(parent), mAdditional(additional)
{
}

kxCancelInterfaceProxy::kxCancelInterfaceProxy(char* flag, kxCancelInterface* parent,
                                               const kxCancelInterfaceReadOnly* additional)
    : mOwnFlag(0), mFlag(flag ? flag : &mOwnFlag), mParent(parent), mAdditional(additional)
{
}

kxCancelInterfaceProxy::~kxCancelInterfaceProxy() = default;

bool kxCancelInterfaceProxy::shouldCancel() const
{
    if (flagSet(mFlag))
        return true;
    if (mParent && mParent->shouldCancel())
        return true;
    return mAdditional && mAdditional->shouldCancel();
}

void kxCancelInterfaceProxy::cancel()
{
    *static_cast<volatile char*>(mFlag) = 1;
    if (mParent)
        mParent->cancel();
}
} // namespace kx

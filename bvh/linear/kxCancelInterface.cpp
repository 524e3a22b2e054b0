#include "kxCancelInterface.h"

namespace kx
{
namespace
{
// The flag is a plain char that any thread may write while another polls it: it is read
// and written as a relaxed atomic byte, the same single load and store on x86, but
// race-free and visible to ThreadSanitizer. The builtins (rather than std::atomic<char>)
// keep the caller's plain char usable as the flag.
inline bool flagSet(const char* flag)
{
    return __atomic_load_n(flag, __ATOMIC_RELAXED) != 0;
}

inline void setFlag(char* flag)
{
    __atomic_store_n(flag, char(1), __ATOMIC_RELAXED);
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
    setFlag(mFlag);
    if (mParent)
        mParent->cancel();
}
} // namespace kx

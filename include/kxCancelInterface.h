#ifndef KXCANCELINTERFACE_H
#define KXCANCELINTERFACE_H

namespace kx
{
/// A source that long operations poll. A null pointer to one means "never cancelled".
class kxCancelInterfaceReadOnly
{
public:
    virtual ~kxCancelInterfaceReadOnly();
    virtual bool shouldCancel() const = 0;
};

/// A source that can also be told to cancel.
class kxCancelInterface : public kxCancelInterfaceReadOnly
{
public:
    ~kxCancelInterface() override;
    virtual void cancel() = 0;
};

/// Reads a flag byte (non-zero = cancelled), then its parent. Owns neither.
/// The flag may be written from any thread while another polls it: it is read as a
/// relaxed atomic byte (no lock, no ordering), so a writer that shares it must write it
/// atomically too (__atomic_store_n, or a kxCancelInterfaceProxy's cancel()).
class kxCancelInterfaceProxyReadOnly : public kxCancelInterfaceReadOnly
{
public:
    explicit kxCancelInterfaceProxyReadOnly(const char* flag = nullptr,
                                            const kxCancelInterfaceReadOnly* parent = nullptr);
    ~kxCancelInterfaceProxyReadOnly() override;

    /// Flag set, else the parent's answer, else false.
    bool shouldCancel() const override;

private:
    const char* mFlag;
    const kxCancelInterfaceReadOnly* mParent;
};

/// A writable link in a chain of cancellation sources. cancel() sets its flag and runs up
/// the chain of parents; an additional read-only source is consulted but never written.
/// Owns none of them. Not copyable: by default the flag pointer points at the proxy's
/// own flag byte. The flag is read and written as a relaxed atomic byte, so cancel() and
/// shouldCancel() may run on different threads at once; a cancel seen late only delays
/// the stop until the next poll.
class kxCancelInterfaceProxy : public kxCancelInterface
{
public:
    explicit kxCancelInterfaceProxy(kxCancelInterface* parent = nullptr,
                                    const kxCancelInterfaceReadOnly* additional = nullptr);
    /// Uses the caller's flag byte (not null) instead of its own.
    kxCancelInterfaceProxy(char* flag, kxCancelInterface* parent, const kxCancelInterfaceReadOnly* additional);
    ~kxCancelInterfaceProxy() override;
    kxCancelInterfaceProxy(const kxCancelInterfaceProxy&) = delete;
    kxCancelInterfaceProxy& operator=(const kxCancelInterfaceProxy&) = delete;

    /// Own flag, then the parent, then the additional source; false when none says yes.
    bool shouldCancel() const override;
    /// Sets the flag to 1, then cancels the parent.
    void cancel() override;

private:
    char mOwnFlag;
    char* mFlag;
    kxCancelInterface* mParent;
    const kxCancelInterfaceReadOnly* mAdditional;
};
} // namespace kx

#endif

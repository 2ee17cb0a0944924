// Message catalogs: reference-counted messages and catalogs, the factory that makes them, and the process's manager,
// which turns a message id and a locale into localised text.
//
// Counts are safe under any number of threads. The manager's content is not locked: its one caller in the library, the
// bridge, serialises its calls, and so must any other. Where memory is short they throw std::bad_alloc, and what was
// kept before is still there, whole.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>

#include <ace/Guard_T.h>
#include <ace/SString.h>
#include <ace/Thread_Mutex.h>
#include <unicode/fmtable.h>

#include <qzfi/errors.h>

namespace qzfi_pdk_4_4 {

/// An intrusive count. The three operations do not lock: whoever holds a reference locks `mutex()` around them.
class CFiRefCount {
public:
    CFiRefCount() = default;
    virtual ~CFiRefCount();
    CFiRefCount(const CFiRefCount &) = delete;
    CFiRefCount &operator=(const CFiRefCount &) = delete;

    virtual int32_t increment();
    virtual int32_t decrement();
    virtual int32_t getCount();

    ACE_Thread_Mutex &mutex() { return mutex_; }

private:
    int32_t count_ = 0;
    ACE_Thread_Mutex mutex_;
};

/// Allocation policies of `CFiSmartPtr`; they have no state.
template <class T>
struct CFiNullAllocator {};
template <class T>
struct CFiContextSingletonAllocator {};

/// A counted reference to a `CFiRefCount`, or none.
template <class T, class A>
class CFiSmartPtr {
public:
    CFiSmartPtr() = default;
    explicit CFiSmartPtr(T *pointee) : pointee_(pointee) { take(); }
    CFiSmartPtr(const CFiSmartPtr &other) : pointee_(other.pointee_) { take(); }
    ~CFiSmartPtr() { release(); }
    CFiSmartPtr &operator=(const CFiSmartPtr &other);

    /// Drops the reference; the last one destroys the object.
    void release();

    T *get() const { return pointee_; }
    T *operator->() const { return pointee_; }
    T &operator*() const { return *pointee_; }
    explicit operator bool() const { return pointee_ != nullptr; }

private:
    void take();

    T *pointee_ = nullptr;
};

/// A localisable message: id, severity and arguments.
class CFiMessage : public CFiRefCount {
public:
    ~CFiMessage() override;

    virtual std::string serialize() = 0;
    virtual void deserialize(const qfi_msg_info *record) = 0;
    virtual int32_t getSeverity();
    virtual int32_t getLineNumber();
    virtual std::string getFileName();
    virtual std::string getMessageId();
    virtual ACE_String_Base<char> formatMessage(ACE_String_Base<char> pattern) = 0;

protected:
    std::string message_id_;
    int32_t severity_ = 4;
    std::string file_name_;
    int32_t line_number_ = 0;
    icu::Formattable arguments_{static_cast<const icu::Formattable *>(nullptr), 0}; // of array type
    std::string serialized_;
};

/// The texts of one locale.
class CFiMessageCatalog : public virtual CFiRefCount {
public:
    virtual int32_t init();
    virtual ACE_String_Base<char> getMessage(const std::string &message_id, const char *default_text) const = 0;
    ~CFiMessageCatalog() override;
};

using CFiMessagePtr = CFiSmartPtr<CFiMessage, CFiNullAllocator<CFiMessage>>;
using CFiMessageCatalogPtr = CFiSmartPtr<CFiMessageCatalog, CFiNullAllocator<CFiMessageCatalog>>;

/// Makes catalogs and messages. Not counted: the manager holds a plain pointer, so a registered factory outlives its
/// registration.
class CFiMessageCatalogFactory {
public:
    CFiMessageCatalogFactory(std::string default_locale, const ACE_String_Base<char> &catalog_name);
    virtual ~CFiMessageCatalogFactory();
    CFiMessageCatalogFactory(const CFiMessageCatalogFactory &) = delete;
    CFiMessageCatalogFactory &operator=(const CFiMessageCatalogFactory &) = delete;

    virtual CFiMessageCatalogPtr allocateCatalog(const char *locale) = 0;
    virtual CFiMessagePtr allocateMessage(qfi_msg_info *record) = 0;
    virtual std::string getDefaultLocale();

protected:
    std::string default_locale_;
    ACE_String_Base<char> catalog_name_;
};

/// One catalog per locale, from the registered factory, and the last text produced for each message.
class CFiMessageCatalogManager : public virtual CFiRefCount {
public:
    ~CFiMessageCatalogManager() override;

    /// Replaces the factory, which is not owned and not destroyed, and activates its default locale's catalog.
    void registerFactory(CFiMessageCatalogFactory *factory);
    /// Makes sure that a working catalog for the locale is kept; one that fails to initialise is not.
    void activateCatalog(std::string locale);

    /// The catalog text, from the locale's catalog, else the default locale's, else `default_text`, else "<id>".
    ACE_String_Base<char> getMessage(const std::string &message_id, const char *default_text, std::string locale);
    /// Stores the text of an id and gives a copy in `*out`, which the caller frees; null when there is no memory for
    /// the copy. The locale "native" is the native language, null the factory's default.
    void getLocalizedMessage(const char *message_id, const char *locale, char **out);
    /// Formats a record's message and stores it; without a factory, gives the record's text as "<text>". `*out` is the
    /// stored text itself: valid until it is replaced by a call with the same serialised text or released with
    /// `deleteLocalizedMessage`. Throws std::out_of_range for a record whose text ends early.
    void getLocalizedMessage(qfi_msg_info *record, const char *locale, char **out);
    /// The catalog text of the message's id with the message's arguments filled in; empty without a message.
    ACE_String_Base<char> getLocalizedMessage(const CFiMessagePtr &message, const char *locale);
    /// Forgets the first stored text, in order of its key, that equals `*text`. Does not free `*text`.
    void deleteLocalizedMessage(char **text);

    std::string getNativeLanguage();
    void setNativeLanguage(const char *language);

private:
    using Catalogs = std::map<std::string, CFiMessageCatalogPtr>; // by locale

    /// The locale's catalog, made when it is not there yet; the end when there is none that works.
    Catalogs::iterator activate(const std::string &locale);
    std::string chooseLocale(const char *locale);
    CFiMessageCatalogPtr findCatalog(std::string locale);
    char *store(const std::string &key, ACE_String_Base<char> text);

    // Destroyed in reverse: native language, texts, catalogs.
    Catalogs catalogs_;
    CFiMessageCatalogFactory *factory_ = nullptr;
    std::map<std::string, ACE_String_Base<char>> localized_texts_;
    std::string native_language_;
};

/// Names the library's context, of which there is one singleton of each type.
extern const char FI_PLUGIN_NAME[];

/// The process's one object of a type, made on first use, by any thread, and destroyed at process exit.
template <class T, const char *Context>
class CFiContextSingleton {
public:
    using Reference = CFiSmartPtr<T, CFiContextSingletonAllocator<T>>;

    /// The argument has no effect.
    static Reference instance(bool = true);
};

using CFiMessageCatalogManagerSingleton = CFiContextSingleton<CFiMessageCatalogManager, FI_PLUGIN_NAME>;

template <class T, class A>
void CFiSmartPtr<T, A>::take() {
    if (pointee_ == nullptr)
        return;
    // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDelete): it does not follow counts from one reference to another
    ACE_Guard<ACE_Thread_Mutex> guard{pointee_->mutex()};
    if (guard.locked())
        pointee_->increment();
}

template <class T, class A>
void CFiSmartPtr<T, A>::release() {
    T *const released = pointee_;
    pointee_ = nullptr;
    if (released == nullptr)
        return;
    // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDelete): it does not follow counts from one reference to another
    ACE_Guard<ACE_Thread_Mutex> guard{released->mutex()};
    if (!guard.locked() || released->decrement() != 0)
        return;
    // The count is 1 again while the object is torn down, so that a reference taken meanwhile does not destroy it
    // twice.
    released->increment();
    guard.release();
    delete released;
}

template <class T, class A>
CFiSmartPtr<T, A> &CFiSmartPtr<T, A>::operator=(const CFiSmartPtr &other) {
    if (this == &other)
        return *this;
    // Counted before the old pointee goes, which may own the other reference or be its object too.
    CFiSmartPtr held{other};
    release();
    std::swap(pointee_, held.pointee_);
    return *this;
}

template <class T, const char *Context>
typename CFiContextSingleton<T, Context>::Reference CFiContextSingleton<T, Context>::instance(bool) {
    static Reference contextInstance;
    static ACE_Thread_Mutex mutex;
    ACE_Guard<ACE_Thread_Mutex> guard{mutex};
    if (!contextInstance)
        contextInstance = Reference{new T};
    return contextInstance;
}

} // namespace qzfi_pdk_4_4

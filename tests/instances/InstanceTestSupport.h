#pragma once
// Support for the instance and reference tests: descriptor objects written
// here (the store must take any implementation of the descriptor
// interfaces, not only its own), instance creation, and direct access to the
// streams of an instance through the root storage that the frame holds.
#include <string>
#include <vector>
#include "TestSupport.h"
#include "PK_Trace.h"

namespace instance_testing
{
// IUnknown and an IDispatch that offers no type information: the least a
// caller's object of a dual interface must have.
template <class Interface>
class MinimalObject : public Interface
{
public:
    STDMETHODIMP QueryInterface(REFIID iid, void** object) override
    {
        if (!object)
            return E_POINTER;
        *object = nullptr;
        if (!IsEqualIID(iid, IID_IUnknown) && !IsEqualIID(iid, IID_IDispatch) && !IsEqualIID(iid, __uuidof(Interface)))
            return E_NOINTERFACE;
        *object = static_cast<Interface*>(this);
        AddRef();
        return S_OK;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ++m_refCount; }
    STDMETHODIMP_(ULONG) Release() override
    {
        const ULONG count = --m_refCount;
        if (!count)
            delete this;
        return count;
    }
    STDMETHODIMP GetTypeInfoCount(UINT* count) override
    {
        *count = 0;
        return S_OK;
    }
    STDMETHODIMP GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
    STDMETHODIMP GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override { return E_NOTIMPL; }
    STDMETHODIMP Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*, UINT*) override
    {
        return E_NOTIMPL;
    }
    virtual ~MinimalObject() = default;

    // Makes every getter fail with this result.
    HRESULT failGet = S_OK;

protected:
    template <class T>
    HRESULT Give(T* out, const T& field)
    {
        if (FAILED(failGet))
            return failGet;
        *out = field;
        return S_OK;
    }
    HRESULT Give(BSTR* out, const _bstr_t& field) { return FAILED(failGet) ? failGet : (*out = field.copy(), S_OK); }
    template <class T, class V>
    static HRESULT Take(T& field, const V& value)
    {
        field = value;
        return S_OK;
    }

private:
    ULONG m_refCount = 0;
};

// A DTM descriptor of the caller.
class TestDtmDescriptor final : public MinimalObject<IFdtDtmDescriptor>
{
public:
    BYTE category = 1;
    LONG classification = 0;
    _bstr_t device;
    _bstr_t node;
    LONG application = 0x020001FE;
    LONG language = 0x400;

    STDMETHODIMP get_m_category(BYTE* value) override { return Give(value, category); }
    STDMETHODIMP put_m_category(BYTE value) override { return Take(category, value); }
    STDMETHODIMP get_m_classification(LONG* value) override { return Give(value, classification); }
    STDMETHODIMP put_m_classification(LONG value) override { return Take(classification, value); }
    STDMETHODIMP get_m_device(BSTR* value) override { return Give(value, device); }
    STDMETHODIMP put_m_device(BSTR value) override { return Take(device, value); }
    STDMETHODIMP get_m_node(BSTR* value) override { return Give(value, node); }
    STDMETHODIMP put_m_node(BSTR value) override { return Take(node, value); }
    STDMETHODIMP get_m_application(LONG* value) override { return Give(value, application); }
    STDMETHODIMP put_m_application(LONG value) override { return Take(application, value); }
    STDMETHODIMP get_m_language(LONG* value) override { return Give(value, language); }
    STDMETHODIMP put_m_language(LONG value) override { return Take(language, value); }
};

// A communication descriptor of the caller.
class TestCommDescriptor final : public MinimalObject<IFdtCommunicationDescriptor>
{
public:
    BYTE category = 1;
    _bstr_t name;

    STDMETHODIMP get_m_category(BYTE* value) override { return Give(value, category); }
    STDMETHODIMP put_m_category(BYTE value) override { return Take(category, value); }
    STDMETHODIMP get_m_name(BSTR* value) override { return Give(value, name); }
    STDMETHODIMP put_m_name(BSTR value) override { return Take(name, value); }
};

template <class Object>
ComPtr<Object> Make()
{
    return ComPtr<Object>(new Object);
}

// A store file of the running test's own (named after the test), opened by
// the store; given up again, and removed unless kept, at the end.
class StoreSession
{
public:
    explicit StoreSession(const wchar_t* name = nullptr);
    ~StoreSession();
    IFbInstanceData* Store() const { return m_open.store.Get(); }
    IInstanceDataMgr* Manager() const { return m_open.manager.Get(); }
    IStorage* Root() const { return m_open.root.Get(); }
    const wchar_t* Path() const { return m_file.Path(); }
    void Keep() { m_file.Keep(); }
    // Commits the root, gives the file up and opens it again, as a frame
    // does between two sessions.
    void Reopen();
    // Commits the root and gives the file up, so that it can be read from disk.
    void Close();

private:
    TempStoreFile m_file;
    OpenStore m_open;
};

// Gives up whatever file the store holds, by opening a parking file.
void ReleaseStoreFile(IInstanceDataMgr* manager);

// Creates an instance with the given descriptors (default ones when null);
// an empty string when Create fails.
std::wstring NewInstance(IFbInstanceData* store, IFdtDtmDescriptor* dtm = nullptr,
                         IFdtCommunicationDescriptor* comm = nullptr);

// The identifiers that GetInstanceDataList gives.
std::vector<std::wstring> InstanceList(IFbInstanceData* store);

// References as (instance identifier, parameter name) pairs.
typedef std::pair<std::wstring, std::wstring> Reference;
typedef std::vector<Reference> References;
// What GetSubInstanceData and GetSuperInstanceData give.
References SubReferences(IFbInstanceData* store, BSTR id);
Reference SuperReference(IFbInstanceData* store, BSTR id);

// Makes the store open another instance, so that the frame may open the
// storage of any other one through the root (an open storage cannot be opened
// twice). ReadIdentification only reads.
void ParkStoreOn(IFbInstanceData* store, const wchar_t* bystander);

// A stream of an instance storage, read or replaced through the root; the
// store must not hold that instance open (see ParkStoreOn).
std::vector<unsigned char> InstanceStream(IStorage* root, const wchar_t* id, const wchar_t* stream);
void ReplaceInstanceStream(IStorage* root, const wchar_t* id, const wchar_t* stream,
                           const std::vector<unsigned char>& bytes);
// Names and contents of every stream of an instance storage.
std::vector<std::pair<std::wstring, std::vector<unsigned char>>> AllInstanceStreams(IStorage* root,
                                                                                     const wchar_t* id);

// Checks that a list result is a one-dimensional array of type elements
// from index 0, count of them, and destroys it.
void ExpectListAndDestroy(SAFEARRAY* list, VARTYPE type, LONG count);

// Byte images of stream fields, for building and comparing streams.
void AppendDword(std::vector<unsigned char>& bytes, DWORD value);
void AppendString(std::vector<unsigned char>& bytes, const wchar_t* text);   // null: N = 0
}  // namespace instance_testing

using namespace instance_testing;

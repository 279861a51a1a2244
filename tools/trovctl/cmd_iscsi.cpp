// Commands on iSCSI targets, their portal groups and the secrets of their sessions.
#include "handlers.h"
#include "interrupt.h"
#include "platform/platform.h"
#include "platform/wstr.h"
#include "shell.h"
#include "targets.h"

namespace trovctl {

namespace {

// A secret word of the command line: "-" stands for none.
bool SecretOf(const std::string& word, std::string* secret) {
    if (word == "-") return false;
    *secret = word;
    return true;
}

// Whether the word at the secret's place is one (else the secret was left out, to be asked).
bool IsSecretWord(const std::vector<std::string>& a, size_t at) {
    if (a.size() <= at) return false;
    Kind k;
    GUID id{};
    return a[at] == "-" || (a[at] != "initiator" && !ParseKind(a[at], &k) && !GuidFromString(a[at], &id));
}

// The secret left out of the line, asked without echo. An exit status.
int AskFor(Shell& sh, const std::string& prompt, std::string* secret) {
    if (!sh.AskSecret(prompt, secret))
        return sh.Usage("no terminal to ask the secret on: give it on the line (- for none)");
    if (interrupt::Pending()) return kInterrupted;
    if (secret->empty()) return sh.Usage("no secret given (- on the line clears it)");
    return kOk;
}

LPWSTR Wide(const std::u16string& s) { return const_cast<LPWSTR>(reinterpret_cast<const WCHAR*>(s.c_str())); }

}  // namespace

int CmdTargetSecret(Shell& sh, const Call& c) {
    const std::vector<std::string>& a = c.args;
    std::string secret;
    bool present = true;
    size_t next = 0;
    if (IsSecretWord(a, 0)) {
        present = SecretOf(a[0], &secret);
        next = 1;
    }
    std::u16string initiator;
    bool named = false;
    if (a.size() > next && a[next] == "initiator") {
        if (a.size() < next + 2) return sh.UsageOf(*c.cmd);
        initiator = Utf8ToWide(a[next + 1]);
        named = true;
        next += 2;
    }
    Object o;
    int rc = sh.ResolveArgs(c, next, &o);
    if (rc != kOk) return rc;
    CComPtr<IVdsIscsiTarget> t = As<IVdsIscsiTarget>(o.unk, IID_IVdsIscsiTarget);
    if (!t) return sh.Failed("QueryInterface(IVdsIscsiTarget)", E_NOINTERFACE);
    if (next == 0 && (rc = AskFor(sh, "CHAP secret of " + ShortLabel(o) + ": ", &secret)) != kOk) return rc;
    VDS_ISCSI_SHARED_SECRET s{reinterpret_cast<UCHAR*>(secret.data()), static_cast<ULONG>(secret.size())};
    HRESULT hr = t->SetSharedSecret(present ? &s : nullptr, named ? Wide(initiator) : nullptr);
    if (FAILED(hr)) return sh.Failed("SetSharedSecret", hr);
    sh.Done("target secret");
    return kOk;
}

int CmdInitiatorSecret(Shell& sh, const Call& c) {
    if (c.args.empty()) return sh.UsageOf(*c.cmd);
    std::string secret;
    bool given = IsSecretWord(c.args, 1);
    bool present = given ? SecretOf(c.args[1], &secret) : true;
    Object o;
    int rc = sh.ResolveArgs(c, given ? 2 : 1, &o);
    if (rc != kOk) return rc;
    CComPtr<IVdsIscsiTarget> t = As<IVdsIscsiTarget>(o.unk, IID_IVdsIscsiTarget);
    if (!t) return sh.Failed("QueryInterface(IVdsIscsiTarget)", E_NOINTERFACE);
    if (!given && (rc = AskFor(sh, "secret of " + c.args[0] + ": ", &secret)) != kOk) return rc;
    std::u16string name = Utf8ToWide(c.args[0]);
    VDS_ISCSI_SHARED_SECRET s{reinterpret_cast<UCHAR*>(secret.data()), static_cast<ULONG>(secret.size())};
    HRESULT hr = t->RememberInitiatorSharedSecret(Wide(name), present ? &s : nullptr);
    if (FAILED(hr)) return sh.Failed("RememberInitiatorSharedSecret", hr);
    sh.Done("initiator secret");
    return kOk;
}

int CmdInitiators(Shell& sh, const Call& c) {
    Object o;
    int rc = sh.ResolveArgs(c, 0, &o);
    if (rc != kOk) return rc;
    CComPtr<IVdsIscsiTarget> t = As<IVdsIscsiTarget>(o.unk, IID_IVdsIscsiTarget);
    if (!t) return sh.Failed("QueryInterface(IVdsIscsiTarget)", E_NOINTERFACE);
    LPWSTR* list = nullptr;
    LONG n = 0;
    HRESULT hr = t->GetConnectedInitiators(&list, &n);
    if (FAILED(hr)) return sh.Failed("GetConnectedInitiators", hr);
    Json names = Json::array();
    for (LONG i = 0; i < n && list; ++i) {
        names.push_back(list[i] ? WideToUtf8(list[i]) : std::string());
        CoTaskMemFree(list[i]);
    }
    CoTaskMemFree(list);
    sh.render().List("initiators", names, [](std::ostream& out, const Json& name) { out << name.get<std::string>(); });
    return kOk;
}

int CmdCreatePortalGroup(Shell& sh, const Call& c) {
    Object o;
    int rc = sh.ResolveArgs(c, 0, &o);
    if (rc != kOk) return rc;
    CComPtr<IVdsIscsiTarget> t = As<IVdsIscsiTarget>(o.unk, IID_IVdsIscsiTarget);
    if (!t) return sh.Failed("QueryInterface(IVdsIscsiTarget)", E_NOINTERFACE);
    IVdsAsync* async = nullptr;
    HRESULT hr = t->CreatePortalGroup(&async);
    if (FAILED(hr)) return sh.Failed("CreatePortalGroup", hr);
    HRESULT result = S_OK;
    VDS_ASYNC_OUTPUT output{};
    hr = async->Wait(&result, &output);
    async->Release();
    if (FAILED(hr)) return sh.Failed("Wait", hr);
    if (FAILED(result)) return sh.Failed("CreatePortalGroup", result);
    if (!output.cpg.pPortalGroupUnk) {
        sh.render().Error("E_POINTER", static_cast<uint32_t>(E_POINTER), "CreatePortalGroup returned no portal group");
        return kFailed;
    }
    Object g{Kind::PortalGroup, {}, {}};
    g.unk.Attach(output.cpg.pPortalGroupUnk);
    Json j;
    if (FAILED(hr = Describe(g, &j))) return sh.Failed("GetProperties", hr);
    sh.render().Object(j);
    return kOk;
}

}  // namespace trovctl

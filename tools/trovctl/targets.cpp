// Target resolution: which object the words at the end of a command name.
#include "interrupt.h"
#include "platform/vds_errors.h"
#include "platform/wstr.h"
#include "shell.h"

namespace trovctl {

HRESULT Shell::Enumerate(Kind kind, std::vector<Object>* out) {
    return trovctl::Enumerate(provider_, kind, out, &interrupt::Pending);
}

int Shell::ResolveArgs(const Call& call, size_t from, Object* out) {
    std::vector<std::string> target;
    if (from < call.args.size()) target.assign(call.args.begin() + long(from), call.args.end());
    return Resolve(target, call.cmd->kinds, out);
}

int Shell::Resolve(const std::vector<std::string>& target, const std::vector<Kind>& kinds, Object* out) {
    auto allowed = [&](Kind k) {
        for (Kind a : kinds)
            if (a == k) return true;
        return false;
    };
    std::string wanted;
    for (size_t i = 0; i < kinds.size(); ++i) wanted += std::string(i ? " or " : "") + KindName(kinds[i]);
    auto wrongKind = [&](Kind k) {
        return Usage(std::string("this command takes a ") + wanted + ", not a " + KindName(k));
    };

    if (target.empty()) {
        if (selected_.unk && allowed(selected_.kind)) {
            // Looked up afresh, as a host would: the queries are where the provider brings a
            // stale tree up to date, and an object may have gone meanwhile.
            std::vector<Object> all;
            HRESULT hr = Enumerate(selected_.kind, &all);
            if (FAILED(hr)) return Failed("the enumeration of the tree", hr);
            for (Object& o : all)
                if (o.id == selected_.id) {
                    selected_ = o;
                    *out = o;
                    return kOk;
                }
            std::string gone = std::string("the selected ") + KindName(selected_.kind) + " " +
                               GuidToString(selected_.id) + " is no longer there";
            selected_ = Object{Kind::Subsystem, {}, {}};
            return Usage(gone);
        }
        // With one object of the command's first kind there is nothing to choose.
        std::vector<Object> all;
        if (SUCCEEDED(Enumerate(kinds[0], &all)) && all.size() == 1) {
            *out = all[0];
            return kOk;
        }
        return Usage("this command needs a " + wanted + ": name one (" + KindName(kinds[0]) +
                     " N) or select it first");
    }
    if (target.size() > 2) return Usage("too many words in the target");

    Kind kind = kinds[0];
    std::string ref = target.back();
    bool kindGiven = false;
    if (target.size() == 2) {
        if (!ParseKind(target[0], &kind)) return Usage("\"" + target[0] + "\" is not a kind of object");
        kindGiven = true;
    }
    GUID id{};
    if (GuidFromString(ref, &id)) {
        CComPtr<IVdsProviderPrivate> priv = As<IVdsProviderPrivate>(provider_, IID_IVdsProviderPrivate);
        if (!priv) return Failed("QueryInterface(IVdsProviderPrivate)", E_NOINTERFACE);
        // An id alone may be of any kind the command takes: the provider checks the type.
        std::vector<Kind> tries = kindGiven ? std::vector<Kind>{kind} : kinds;
        HRESULT last = VDS_E_OBJECT_NOT_FOUND;
        for (Kind k : tries) {
            IUnknown* unk = nullptr;
            last = priv->GetObject(id, ObjectType(k), &unk);
            if (SUCCEEDED(last) && unk) {
                // GetObject hands out one reference more than its caller is to release: the
                // host gives that one back at once, or the object would outlive the provider.
                unk->Release();
                out->kind = k;
                out->id = id;
                out->unk.Release();
                out->unk.Attach(unk);
                if (!allowed(k)) return wrongKind(k);
                return kOk;
            }
        }
        // Not every object is reachable by GetObject (a portal group is registered under the
        // portal's kind): look for the id among the objects the queries list.
        for (Kind k : tries) {
            std::vector<Object> all;
            if (FAILED(Enumerate(k, &all))) continue;
            for (Object& o : all)
                if (o.id == id) {
                    *out = o;
                    if (!allowed(k)) return wrongKind(k);
                    return kOk;
                }
        }
        return Failed("GetObject", last);
    }
    long index;
    if (!ParseNumber(ref, 0, 1L << 20, &index)) return Usage("\"" + ref + "\" is neither a number nor an object id");
    if (!kindGiven && kinds.size() > 1) return Usage("say which kind: " + wanted + " " + ref);
    if (!allowed(kind)) return wrongKind(kind);
    std::vector<Object> all;
    HRESULT hr = Enumerate(kind, &all);
    if (FAILED(hr)) return Failed("the enumeration of the tree", hr);
    if (static_cast<size_t>(index) >= all.size())
        return Usage(std::string("there is no ") + KindName(kind) + " " + ref + " (there are " +
                     std::to_string(all.size()) + ")");
    *out = all[static_cast<size_t>(index)];
    return kOk;
}

}  // namespace trovctl

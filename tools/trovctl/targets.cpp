// Target resolution: which object the words at the end of a command name.
#include "targets.h"

#include <cctype>

#include "interrupt.h"
#include "platform/vds_errors.h"
#include "platform/wstr.h"
#include "shell.h"

namespace trovctl {

namespace {

std::string Text(const Json& r, const char* key) {
    return r.contains(key) && r[key].is_string() ? r[key].get<std::string>() : std::string();
}

// The names an object answers to, and its identification (matched by its beginning too).
void NamesOf(const Object& o, std::vector<std::string>* names, std::string* ident) {
    const Json& r = o.props;
    if (!r.is_object()) return;
    switch (o.kind) {
    case Kind::Pool: {
        // A vdisk's pool is named "Vdisk NAME": NAME alone, as the array knows it, will do.
        std::string name = Text(r, "pwszName");
        names->push_back(name);
        size_t blank = name.find(' ');
        if (blank != std::string::npos) names->push_back(name.substr(blank + 1));
        break;
    }
    case Kind::Target:
        names->push_back(Text(r, "pwszIscsiName"));
        names->push_back(Text(r, "pwszFriendlyName"));
        break;
    case Kind::Portal:
        if (r.contains("address")) {
            std::string addr = Text(r["address"], "wszTextAddress");
            names->push_back(addr);
            names->push_back(addr + ":" + std::to_string(r["address"].value("ulPort", 0u)));
        }
        break;
    case Kind::Plex:
    case Kind::PortalGroup: break;
    default:
        names->push_back(Text(r, "pwszFriendlyName"));
        *ident = Text(r, "pwszIdentification");
        break;
    }
    if (o.kind == Kind::Drive && r.contains("sInternalBusNumber"))
        names->push_back(std::to_string(r["sInternalBusNumber"].get<int>()) + ":" +
                         std::to_string(r["sSlotNumber"].get<int>()));
}

// Digits only: a list number (a name made of digits is named by its number or id instead).
bool IsListNumber(const std::string& w) {
    if (w.empty()) return false;
    for (char c : w)
        if (!std::isdigit(static_cast<unsigned char>(c))) return false;
    return true;
}

bool SameIgnoringCase(const std::string& a, const std::string& b) { return Lower(a) == Lower(b); }

}  // namespace

std::vector<const Object*> MatchByName(const std::string& word, const std::vector<const Object*>& candidates) {
    std::vector<const Object*> levels[3];
    if (word.empty()) return {};
    for (const Object* o : candidates) {
        std::vector<std::string> names;
        std::string ident;
        NamesOf(*o, &names, &ident);
        if (!ident.empty()) names.push_back(ident);
        int best = 3;
        for (const std::string& n : names) {
            if (n.empty()) continue;
            if (n == word) best = 0;
            else if (best > 1 && SameIgnoringCase(n, word)) best = 1;
        }
        if (best > 2 && word.size() >= 4 && ident.size() > word.size() &&
            SameIgnoringCase(ident.substr(0, word.size()), word))
            best = 2;
        if (best < 3) levels[best].push_back(o);
    }
    for (auto& level : levels)
        if (!level.empty()) return level;
    return {};
}

std::string ShortLabel(const Object& o) {
    std::string label = std::string(KindName(o.kind)) + " " + (o.number >= 0 ? std::to_string(o.number) : "?");
    const Json& r = o.props;
    if (!r.is_object()) return label;
    std::string name;
    if (o.kind == Kind::Drive && r.contains("sInternalBusNumber"))
        name = std::to_string(r["sInternalBusNumber"].get<int>()) + ":" + std::to_string(r["sSlotNumber"].get<int>()) +
               " " + Text(r, "pwszIdentification");
    else
        name = RowLabel(o.kind, r);
    return name.empty() ? label : label + " (" + name + ")";
}

HRESULT Shell::Enumerate(Kind kind, std::vector<Object>* out) {
    HRESULT hr = trovctl::Enumerate(provider_, kind, out, &interrupt::Pending);
    if (SUCCEEDED(hr)) numbering_.Assign(kind, out);
    return hr;
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
        return Usage("this command needs a " + wanted + ": name one (" + KindName(kinds[0]) + " N, " +
                     KindName(kinds[0]) + " NAME) or select it first");
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
                out->props = nullptr;
                out->number = numbering_.NumberOf(k, id);
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
    if (IsListNumber(ref)) {
        long index;
        if (!ParseNumber(ref, 0, 1L << 30, &index)) return Usage("\"" + ref + "\" is too large a number");
        if (!kindGiven && kinds.size() > 1) return Usage("say which kind: " + wanted + " " + ref);
        if (!allowed(kind)) return wrongKind(kind);
        std::vector<Object> all;
        HRESULT hr = Enumerate(kind, &all);
        if (FAILED(hr)) return Failed("the enumeration of the tree", hr);
        for (Object& o : all)
            if (o.number == index) {
                *out = o;
                return kOk;
            }
        if (static_cast<size_t>(index) < numbering_.Issued(kind))
            return Usage(std::string(KindName(kind)) + " " + ref + " is no longer there");
        return Usage(std::string("there is no ") + KindName(kind) + " " + ref + " (there are " +
                     std::to_string(all.size()) + ")");
    }
    // A name, an identification or serial, or a drive's BUS:SLOT.
    std::vector<Kind> tries = kindGiven ? std::vector<Kind>{kind} : kinds;
    std::vector<std::vector<Object>> lists(tries.size());
    std::vector<const Object*> candidates;
    for (size_t i = 0; i < tries.size(); ++i) {
        HRESULT hr = Enumerate(tries[i], &lists[i]);
        if (FAILED(hr)) return Failed("the enumeration of the tree", hr);
        for (const Object& o : lists[i]) candidates.push_back(&o);
    }
    std::vector<const Object*> found = MatchByName(ref, candidates);
    std::string what = kindGiven ? KindName(kind) : wanted;
    if (found.empty())
        return Usage("there is no " + what + " \"" + ref + "\" (not a number, id, name or identification" +
                     (allowed(Kind::Drive) && (!kindGiven || kind == Kind::Drive) ? ", nor a drive's BUS:SLOT)"
                                                                                  : ")"));
    if (found.size() > 1) {
        std::string list;
        for (size_t i = 0; i < found.size() && i < 10; ++i) list += (i ? ", " : "") + ShortLabel(*found[i]);
        if (found.size() > 10) list += ", ... (" + std::to_string(found.size()) + " in all)";
        return Usage("\"" + ref + "\" is ambiguous: " + list + "; name one by its number");
    }
    if (!allowed(found[0]->kind)) return wrongKind(found[0]->kind);
    *out = *found[0];
    return kOk;
}

}  // namespace trovctl

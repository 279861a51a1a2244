// How trovctl shows things: the provider's records as JSON objects with the published field names,
// and those objects as text (one "key : value" per line, or a numbered table) or as JSON documents.
// Errors go to standard error as one "trovctl: ..." line each; under --json a failure also leaves
// one error object on standard output, so that a program reading the output sees every outcome.
// Nothing here calls into the provider except the record converters, which free what they take.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>

#include <nlohmann/json.hpp>

#include "platform/vds.h"
#include "tree.h"

namespace trovctl {

using Json = nlohmann::ordered_json;

// "VDS_E_NOT_SUPPORTED (0x80042400)": the name when the result has one, else the number alone.
std::string HrText(HRESULT hr);

// The provider's records as JSON objects, strings taken from the record (and freed).
Json ProviderJson(VDS_PROVIDER_PROP& p);
Json SubsystemJson(VDS_SUB_SYSTEM_PROP2& p);
Json ControllerJson(VDS_CONTROLLER_PROP& p);
Json PortJson(VDS_PORT_PROP& p);
Json DriveJson(VDS_DRIVE_PROP2& p);
Json LunJson(VDS_LUN_PROP& p);
Json PlexJson(const VDS_LUN_PLEX_PROP& p);
Json PoolJson(VDS_STORAGE_POOL_PROP& p, VDS_POOL_ATTRIBUTES* a);
Json TargetJson(VDS_ISCSI_TARGET_PROP& p);
Json PortalJson(const VDS_ISCSI_PORTAL_PROP& p);
Json GroupJson(const VDS_ISCSI_PORTALGROUP_PROP& p);

// The words that name an object of a kind in a listing and after "selected".
std::string RowLabel(Kind kind, const Json& row);
// Bytes as GiB with one decimal ("200.0 GiB").
std::string Gib(uint64_t bytes);

// Where a command's output goes, in the form the user asked for.
class Render {
public:
    Render(std::ostream& out, std::ostream& err, bool json) : out_(out), err_(err), json_(json) {}

    void SetJson(bool json) { json_ = json; }
    bool json() const { return json_; }
    std::ostream& out() { return out_; }

    // Every property of one object.
    void Object(const Json& j);
    // A numbered listing of one kind. `doubt` (when not empty) says why it may be incomplete: a
    // line on standard error, and under --json the rows go inside an object that says so.
    void Table(Kind kind, const Json& rows, const std::string& doubt = {});
    // A list of plain JSON values (extents, initiators) under a counted heading.
    void List(const char* heading, const Json& rows, void (*line)(std::ostream&, const Json&));
    // The short confirmation of an action.
    void Done(const std::string& what);
    // A failure: "trovctl: <message>" on standard error, and under --json the error object
    // {"error": error, "code": code, "message": message} on standard output.
    void Error(const std::string& error, int64_t code, const std::string& message);
    // A line on standard error that is not a failure of the command ("trovctl: <text>").
    void Note(const std::string& text);

private:
    std::ostream& out_;
    std::ostream& err_;
    bool json_;
};

// A progress bar for a long operation, drawn in place on a terminal: "label [#####     ]  37%".
// Where the stream is no terminal it writes nothing until Finish, which writes the last state
// once, so that a log gets one line and not a hundred.
class ProgressBar {
public:
    ProgressBar(std::ostream& err, std::string label, bool terminal, int width = 30);
    ~ProgressBar();
    // Shows `percent` (clamped to 0..100); draws only when the text changes.
    void Update(int percent);
    // Ends the bar's line (idempotent).
    void Finish();
    // The text of the bar at `percent` (clamped), without the carriage return.
    static std::string Text(const std::string& label, int percent, int width);

private:
    std::ostream& err_;
    std::string label_;
    bool terminal_;
    int width_;
    int shown_ = -1;
    bool finished_ = false;
};

}  // namespace trovctl

// How trovctl shows things: the provider's records as JSON objects with the published field names,
// and those objects as text or as JSON documents. For people: one "key : value" per line with
// enums and flags in words beside their numbers and sizes in binary units, or a table with a
// header row, columns aligned whatever the width of the numbers, and a marker (coloured on a
// terminal) on objects that want attention. For scripts: the table's cells joined by a separator
// (--terse), with or without the header. For programs: JSON, pretty for one command, one
// document per line (NDJSON) for a script or the shell.
// Errors go to standard error as one "trovctl: ..." line each; under --json a failure also leaves
// one error object on standard output, so that a program reading the output sees every outcome.
// Nothing here calls into the provider except the record converters, which free what they take.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <map>
#include <string>
#include <vector>

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

// One row of a listing: the object's number in this run, its record (with text forms), and the
// cells a listing adds beside the record, by column header (a LUN's POOL, LUN and HOSTS; a
// plex's LUN).
struct Row {
    long number = -1;
    Json props;
    std::map<std::string, std::string> more;
};

// The cells of a listing as text: the header and one line per row; `color` wraps the marker and
// state of rows that want attention in terminal colours.
struct TableText {
    std::vector<std::string> header;
    std::vector<std::vector<std::string>> cells;
    std::vector<bool> rightAligned;
    std::vector<bool> attention;
};
TableText TableOf(Kind kind, const std::vector<Row>& rows);
// Aligned columns, two blanks apart; the header first when `header`.
std::string FormatTable(const TableText& t, bool header, bool color);
// The cells joined by `sep`, one row a line; the header first when `header`.
std::string FormatTerse(const TableText& t, const std::string& sep, bool header);

// What a success other than S_OK means, for the command that got it ("" when nothing to say).
std::string SuccessMeaning(HRESULT hr, const std::string& command);

// Where a command's output goes, in the form the user asked for.
class Render {
public:
    Render(std::ostream& out, std::ostream& err, bool json) : out_(out), err_(err), json_(json) {}

    void SetJson(bool json) { json_ = json; }
    bool json() const { return json_; }
    // One JSON document per line (scripts, the shell) instead of indented ones.
    void SetNdjson(bool ndjson) { ndjson_ = ndjson; }
    // Tables: with or without their header (and count line); cells joined by `terse` when it is
    // not empty (then the header only when asked for); colours for a terminal.
    void SetHeader(bool header, bool explicitly) { header_ = header, headerAsked_ = explicitly; }
    void SetTerse(const std::string& sep) { terse_ = sep; }
    void SetColor(bool color) { color_ = color; }
    std::ostream& out() { return out_; }
    // A JSON document as the output form asks: indented, or on one line.
    std::string Dump(const Json& j) const { return ndjson_ ? j.dump() : j.dump(2); }

    // Every property of one object.
    void Object(const Json& j);
    // A numbered listing of one kind. `doubt` (when not empty) says why it may be incomplete: a
    // line on standard error, and under --json the rows go inside an object that says so.
    void Table(Kind kind, const std::vector<Row>& rows, const std::string& doubt = {});
    // A list of plain JSON values (extents, initiators) under a counted heading.
    void List(const char* heading, const Json& rows, void (*line)(std::ostream&, const Json&));
    // The short confirmation of an action; a success other than S_OK is shown with what it means.
    void Done(const std::string& what, HRESULT hr = S_OK);
    // A line on standard error that says the command waits (for a light to flash, ...).
    void Waiting(const std::string& text);
    // A failure: "trovctl: <message>" on standard error, and under --json the error object
    // {"error": error, "code": code, "message": message} on standard output.
    void Error(const std::string& error, int64_t code, const std::string& message);
    // A line on standard error that is not a failure of the command ("trovctl: <text>").
    void Note(const std::string& text);

private:
    std::ostream& out_;
    std::ostream& err_;
    bool json_;
    bool ndjson_ = false;
    bool header_ = true;
    bool headerAsked_ = false;
    bool color_ = false;
    std::string terse_;
};

// A progress bar for a long operation, drawn in place on a terminal: "label [#####     ]  37%".
// Where the stream is no terminal it writes nothing until Finish, which writes the last state
// once, so that a log gets one line and not a hundred.
class ProgressBar {
public:
    ProgressBar(std::ostream& err, std::string label, bool terminal, int width = 30);
    ~ProgressBar();
    // Shows `percent` (clamped to 0..100) and a note after it (the elapsed time, the phase);
    // draws only when the text changes.
    void Update(int percent, const std::string& note = {});
    // Ends the bar's line (idempotent).
    void Finish();
    // The text of the bar at `percent` (clamped), without the carriage return.
    static std::string Text(const std::string& label, int percent, int width, const std::string& note = {});

private:
    std::ostream& err_;
    std::string label_;
    bool terminal_;
    int width_;
    int shown_ = -1;
    std::string note_;
    size_t drawn_ = 0;  // the length of the line on the terminal, to blank a longer one
    bool finished_ = false;
};

}  // namespace trovctl

// The pure pieces of an agent turn request: reading the page's payload key
// by key (a value of the wrong type counts as absent), the names of turn
// files, the prompt and the agent's search path.
#pragma once

#include "bridge/Payload.h"

#include <nlohmann/json.hpp>

#include <optional>
#include <string>
#include <vector>

namespace orvane {

// The arguments of a turn: "args" must be an array whose every element is a
// string without NUL characters; anything else gives nothing.
std::optional<std::vector<std::string>> TurnArguments(const nlohmann::json& body);

// The last component of a path as a file name: trailing slashes are ignored
// ("a/b/" gives "b"), "/" alone gives "/", "" gives "".
std::string LastPathComponent(const std::string& path);

// The file name a turn may use for a page-given name: its last component.
// Empty when the page gave nothing usable: no string, a NUL character, or a
// last component that is empty.
std::string TurnFileName(const nlohmann::json& name);

// Whether a turn file name can be written or read inside the working folder:
// "/", "." and ".." name a folder, never a file there.
bool IsFileName(const std::string& name);

// "[full text follows]\n<text>\n[/full text]\n"
std::string WrapFullText(const std::string& text);

// The prompt of a turn: "prompt_head", then the wrapped text of the file in
// `working_folder` named by "text_file" (when that file holds non-empty
// valid UTF-8), then "prompt_tail". Pieces of the wrong type are absent; no
// separators are added.
std::string BuildAgentPrompt(const nlohmann::json& body, const std::string& working_folder);

// The agent's PATH: the folder holding the executable, ~/.local/bin, the
// usual package folders, then our own PATH ("/usr/bin:/bin" when we have
// none), so that an agent that is a script finds the interpreter installed
// beside it.
std::string AgentSearchPath(const std::string& claude_path, const std::string& home,
                            const std::optional<std::string>& our_path);

} // namespace orvane

#include "agent/AgentPrompt.h"

#include "agent/LineSplitter.h"
#include "base/GObjectPtr.h"

#include <glib.h>

namespace orvane {

std::optional<std::vector<std::string>> TurnArguments(const nlohmann::json& body) {
  if (!body.is_object())
    return std::nullopt;
  auto found = body.find("args");
  if (found == body.end() || !found->is_array())
    return std::nullopt;
  std::vector<std::string> arguments;
  arguments.reserve(found->size());
  for (const auto& element : *found) {
    if (!element.is_string())
      return std::nullopt;
    const auto& text = element.get_ref<const std::string&>();
    // A process argument ends at its first NUL; such an element cannot be
    // passed on as sent.
    if (text.find('\0') != std::string::npos)
      return std::nullopt;
    arguments.push_back(text);
  }
  return arguments;
}

std::string LastPathComponent(const std::string& path) {
  size_t end = path.size();
  while (end > 1 && path[end - 1] == '/')
    --end;
  if (end == 1 && path[0] == '/')
    return "/";
  size_t slash = path.rfind('/', end == 0 ? 0 : end - 1);
  size_t start = slash == std::string::npos ? 0 : slash + 1;
  if (end == 0)
    return "";
  return path.substr(start, end - start);
}

std::string TurnFileName(const nlohmann::json& name) {
  if (!name.is_string())
    return "";
  const auto& text = name.get_ref<const std::string&>();
  if (text.find('\0') != std::string::npos)
    return "";
  return LastPathComponent(text);
}

bool IsFileName(const std::string& name) {
  return !name.empty() && name != "/" && name != "." && name != "..";
}

std::string WrapFullText(const std::string& text) {
  return "[full text follows]\n" + text + "\n[/full text]\n";
}

std::string BuildAgentPrompt(const nlohmann::json& body, const std::string& working_folder) {
  std::string prompt;
  if (auto head = StringMember(body, "prompt_head"))
    prompt += *head;
  if (body.is_object() && body.contains("text_file")) {
    std::string name = TurnFileName(body["text_file"]);
    if (IsFileName(name)) {
      std::string path = working_folder + "/" + name;
      GCharPtr contents;
      gsize length = 0;
      if (g_file_get_contents(path.c_str(), contents.out(), &length, nullptr)) {
        std::string_view text(contents.get(), length);
        if (!text.empty() && IsValidUtf8(text))
          prompt += WrapFullText(std::string(text));
      }
    }
  }
  if (auto tail = StringMember(body, "prompt_tail"))
    prompt += *tail;
  return prompt;
}

std::string AgentSearchPath(const std::string& claude_path, const std::string& home,
                            const std::optional<std::string>& our_path) {
  GCharPtr folder(g_path_get_dirname(claude_path.c_str()));
  return folder.str() + ":" + home +
         "/.local/bin:/opt/homebrew/bin:/usr/local/bin:" + our_path.value_or("/usr/bin:/bin");
}

} // namespace orvane

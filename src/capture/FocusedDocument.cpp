#include "capture/FocusedDocument.h"

#include "base/GObjectPtr.h"
#include "base/Paths.h"
#include "base/Text.h"
#include "desktop/ProcessDocuments.h"

#include <dirent.h>
#include <fcntl.h>
#include <glib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <set>
#include <utility>
#include <vector>

namespace orvane {

namespace {

// Bounds that keep a hostile folder or file from costing much.
constexpr size_t kMaxFolderEntries = 100000;
constexpr size_t kMaxXbelBytes = size_t(256) << 20;
constexpr size_t kMaxRecentFiles = 100000;

class Candidates {
public:
  // Adds the path when it names an existing regular file not yet listed
  // (the same file reached by two names counts once).
  void add(const std::string& path) {
    struct stat info;
    if (path.empty() || stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode))
      return;
    if (!seen_.insert({info.st_dev, info.st_ino}).second)
      return;
    list_.push_back(path);
  }
  const std::vector<std::string>& list() const { return list_; }

private:
  std::vector<std::string> list_;
  std::set<std::pair<dev_t, ino_t>> seen_;
};

// How much of the title a candidate's file name, or its name without the
// extension, covers from the start; 0 when the title begins with neither.
size_t TitleMatch(const std::string& title, const std::string& path) {
  std::string name = FileName(path);
  if (BeginsWith(title, name))
    return name.size();
  size_t dot = name.rfind('.');
  if (dot != std::string::npos && BeginsWith(title, name.substr(0, dot)))
    return dot;
  return 0;
}

// The candidate the title names; the longest match wins, the earlier on a tie.
std::optional<std::string> MatchTitle(const std::vector<std::string>& candidates,
                                      const std::string& title) {
  std::optional<std::string> best;
  size_t best_length = 0;
  for (const std::string& candidate : candidates) {
    size_t length = TitleMatch(title, candidate);
    if (length > best_length) {
      best = candidate;
      best_length = length;
    }
  }
  return best;
}

std::vector<std::string> FolderPdfs(const std::string& folder) {
  std::vector<std::string> pdfs;
  DIR* dir = opendir(folder.c_str());
  if (!dir)
    return pdfs;
  size_t entries = 0;
  while (struct dirent* entry = readdir(dir)) {
    if (++entries > kMaxFolderEntries)
      break;
    std::string name = entry->d_name;
    if (name[0] != '.' && HasPdfExtension(name))
      pdfs.push_back(JoinPath(folder, name));
  }
  closedir(dir);
  return pdfs;
}

// The PDF entries of an XBEL file that the title names, read as a stream so
// that a huge file costs no more memory than those; a malformed file gives
// the entries before the fault.
struct XbelReader {
  const std::string& title;
  std::vector<std::string> pdfs;

  static void StartElement(GMarkupParseContext*, const gchar* element, const gchar** names,
                           const gchar** values, gpointer data, GError**) {
    auto* reader = static_cast<XbelReader*>(data);
    if (g_strcmp0(element, "bookmark") != 0 || reader->pdfs.size() >= kMaxRecentFiles)
      return;
    for (size_t i = 0; names[i]; ++i) {
      if (g_strcmp0(names[i], "href") != 0)
        continue;
      GCharPtr path(g_filename_from_uri(values[i], nullptr, nullptr));
      if (path && HasPdfExtension(path.str()) && TitleMatch(reader->title, path.str()) > 0)
        reader->pdfs.push_back(path.str());
    }
  }
};

std::vector<std::string> RecentPdfs(const std::string& xbel_path, const std::string& title) {
  XbelReader reader{title, {}};
  int fd = open(xbel_path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  if (fd < 0)
    return reader.pdfs;
  struct stat info;
  if (fstat(fd, &info) == 0 && S_ISREG(info.st_mode)) {
    GMarkupParser parser = {&XbelReader::StartElement, nullptr, nullptr, nullptr, nullptr};
    GMarkupParseContext* context =
        g_markup_parse_context_new(&parser, GMarkupParseFlags(0), &reader, nullptr);
    char buffer[65536];
    size_t total = 0;
    while (total < kMaxXbelBytes) {
      ssize_t got = read(fd, buffer, sizeof buffer);
      if (got <= 0)
        break;
      total += size_t(got);
      if (!g_markup_parse_context_parse(context, buffer, got, nullptr))
        break;
    }
    g_markup_parse_context_free(context);
  }
  close(fd);
  return reader.pdfs;
}

} // namespace

std::string RecentlyUsedXbelPath() {
  return JoinPath(DataFolder(), "recently-used.xbel");
}

std::optional<std::string> FocusedDocumentPath(int pid, const std::string& title,
                                               const DocumentSources& sources) {
  Candidates from_process;
  for (const std::string& pdf : PdfFilesOfProcess(pid, sources.proc_root))
    from_process.add(pdf);
  if (!title.empty() && title[0] == '/')
    from_process.add(title);
  if (from_process.list().size() == 1)
    return from_process.list().front();
  if (!from_process.list().empty())
    return MatchTitle(from_process.list(), title);

  // Only files the title names can win, so only those are looked at.
  Candidates known;
  auto add_if_titled = [&](const std::string& pdf) {
    if (TitleMatch(title, pdf) > 0)
      known.add(pdf);
  };
  if (sources.library_folder && !sources.library_folder->empty())
    for (const std::string& pdf : FolderPdfs(*sources.library_folder))
      add_if_titled(pdf);
  if (!sources.recently_used_xbel.empty())
    for (const std::string& pdf : RecentPdfs(sources.recently_used_xbel, title))
      add_if_titled(pdf);
  return MatchTitle(known.list(), title);
}

} // namespace orvane

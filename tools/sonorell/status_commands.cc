// status and list: what the engine has on record, as tables or JSON objects.
#include <cstdio>

#include "commands.h"
#include "progress_view.h"

namespace sonorell::cli {

namespace {

nlohmann::json bookJSON(const QSOAudiobookDownloadReport& report, bool withChapters) {
  nlohmann::json out{{"audiobookID", report.audiobookID},       {"status", report.status},
                     {"statusName", statusName(report.status)}, {"percentage", report.percentage},
                     {"downloadedSize", report.downloadedSize}, {"totalSize", report.totalSize}};
  if (!withChapters) return out;
  out["chapters"] = nlohmann::json::array();
  for (const auto& c : report.chapters) {
    out["chapters"].push_back({{"part", c.partNumber},
                               {"chapter", c.chapterNumber},
                               {"status", c.status},
                               {"statusName", statusName(c.status)},
                               {"percentage", c.percentage},
                               {"downloadedSize", c.downloadedSize},
                               {"totalSize", c.totalSize},
                               {"file", c.file.string()}});
  }
  return out;
}

std::string row(const char* format, auto... values) {
  char text[512];
  std::snprintf(text, sizeof text, format, values...);
  return text;
}

void printBookRow(Session& session, const QSOAudiobookDownloadReport& r) {
  session.line(row("%-12s %-20s %6.1f%%  %10s / %-10s", r.audiobookID.c_str(),
                   statusName(r.status).c_str(), r.percentage,
                   formatBytes(r.downloadedSize).c_str(), formatBytes(r.totalSize).c_str()));
}

}  // namespace

void printStatusTable(Session& session, const QSOAudiobookDownloadReport& report) {
  session.line(row("%-12s %-20s %7s  %s", "AUDIOBOOK", "STATUS", "DONE", "SIZE"));
  printBookRow(session, report);
  if (report.chapters.empty()) return;
  session.line("");
  session.line(
      row("%4s %7s  %-20s %7s  %10s  %s", "PART", "CHAPTER", "STATUS", "DONE", "SIZE", "FILE"));
  for (const auto& c : report.chapters) {
    session.line(row("%4llu %7llu  %-20s %6.1f%%  %10s  %s",
                     static_cast<unsigned long long>(c.partNumber),
                     static_cast<unsigned long long>(c.chapterNumber), statusName(c.status).c_str(),
                     c.percentage, formatBytes(c.totalSize).c_str(), c.file.string().c_str()));
  }
}

int runStatus(Session& session, const std::string& book) {
  session.configureEngine();
  auto engine = session.engine()->downloadEngine();
  if (book.empty()) {
    nlohmann::json books = nlohmann::json::array();
    for (const auto& id : engine->localAudiobookIDs()) {
      const auto report = engine->reportForAudiobookID(id);
      if (session.json()) {
        books.push_back(bookJSON(report, true));
      } else {
        printStatusTable(session, report);
        session.line("");
      }
    }
    if (session.json()) session.printJSON({{"audiobooks", books}});
    return session.finish("status", kExitOK);
  }
  const auto report = engine->reportForAudiobookID(book);
  if (session.json()) {
    session.printJSON(bookJSON(report, true));
  } else {
    printStatusTable(session, report);
  }
  return session.finish("status", kExitOK);
}

int runList(Session& session) {
  session.configureEngine();
  auto engine = session.engine()->downloadEngine();
  nlohmann::json books = nlohmann::json::array();
  if (!session.json())
    session.line(row("%-12s %-20s %7s  %s", "AUDIOBOOK", "STATUS", "DONE", "SIZE"));
  for (const auto& id : engine->localAudiobookIDs()) {
    const auto report = engine->reportForAudiobookID(id, false);
    if (session.json()) {
      books.push_back(bookJSON(report, false));
    } else {
      printBookRow(session, report);
    }
  }
  if (session.json()) session.printJSON({{"audiobooks", books}});
  return session.finish("list", kExitOK);
}

}  // namespace sonorell::cli

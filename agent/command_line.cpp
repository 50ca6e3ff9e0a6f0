// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/command_line.h"

#include <CLI/CLI.hpp>
#include <ctime>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "agent/commands/commands.h"
#include "agent/errors.h"
#include "agent/logging.h"
#include "agent/output.h"
#include "agent/when.h"
#include "platform/platform_info.h"

namespace kddc {
namespace {

// Everything that the words can say.
struct Words {
  Options options;
  std::string volume;
  std::string since;
  bool noFlush = false;
  std::vector<std::string> files;
  ReplayOptions replay;
  std::string format;
  std::vector<std::string> volumes;
  bool print = false;
  bool nul = false;
  bool json = false;

  RecordFormat recordFormat() const {
    if (format.empty()) return RecordFormat::kByContent;
    return format == "swap" ? RecordFormat::kSwap : RecordFormat::kStream;
  }
  Form form() const { return json ? Form::kJson : nul ? Form::kNul : Form::kLines; }
};

void addGlobalOptions(CLI::App& app, Options& options) {
  app.add_option("--catalogue", options.catalogue, "The catalogue's folder")->option_text("DIR");
  app.add_option("--state", options.state, "The folder of everything kddc keeps")
      ->option_text("DIR");
  app.add_flag("-v,--verbose", options.verbosity, "Log what is done; repeat for more");
  app.add_flag("-q,--quiet", options.quiet, "No progress, no notes");
}

CLI::App* addCommand(CLI::App& app, Words& words, const char* name, const char* what) {
  CLI::App* command = app.add_subcommand(name, what);
  command->add_option("VOLUME", words.volume, "A folder, usually where a volume is mounted")
      ->required();
  return command;
}

CLI::App* addChanges(CLI::App& app, Words& words) {
  CLI::App* changes = addCommand(app, words, "changes", "Print the entries changed since a time");
  changes
      ->add_option("--since", words.since,
                   "Seconds since 1970, ISO 8601, or an age such as 15m, 2h, 3d")
      ->option_text("WHEN")
      ->required();
  changes->add_flag("--no-flush", words.noFlush, "Do not ask the process that watches to catch up");
  return changes;
}

CLI::App* addStatus(CLI::App& app, Words& words) {
  CLI::App* status = app.add_subcommand("status", "Tell how catalogues are doing");
  status->add_option("VOLUME", words.volume, "That volume alone");
  status->add_flag("--json", words.json, "JSON Lines");
  return status;
}

void addForms(CLI::App* command, Words& words) {
  CLI::Option* nul = command->add_flag("-0,--null", words.nul, "End each path with NUL");
  command->add_flag("--json", words.json, "JSON Lines with all that is known")->excludes(nul);
}

void addRecordFormat(CLI::App* command, Words& words) {
  command->add_option("--format", words.format, "What the file is; otherwise its content tells")
      ->option_text("swap|stream")
      ->check(CLI::IsMember({"swap", "stream"}));
}

CLI::App* addVerify(CLI::App& app, Words& words) {
  CLI::App* verify = addCommand(app, words, "verify", "Tell where catalogue and disk differ");
  verify->add_flag("--json", words.json, "JSON Lines, the counts last");
  return verify;
}

CLI::App* addDump(CLI::App& app, Words& words) {
  CLI::App* dump = app.add_subcommand("dump", "Print the records of a swap file or a stream");
  dump->add_option("FILE", words.files, "A file of records, - for standard input")->required();
  addRecordFormat(dump, words);
  dump->add_flag("--json", words.json, "JSON Lines with all that a record holds");
  return dump;
}

CLI::App* addReplay(CLI::App& app, Words& words) {
  CLI::App* replay = app.add_subcommand("replay", "Apply recorded records to a catalogue");
  replay->add_option("FILE", words.replay.file, "A file of records, - for standard input")
      ->required();
  addRecordFormat(replay, words);
  replay->add_option("--devt", words.replay.devt, "Only the records of that volume")
      ->option_text("N");
  replay->add_flag("--coalesce", words.replay.coalesce,
                   "Merge the records of a file before they are written");
  replay->add_flag("--stats", words.replay.stats, "Also how long the operations took");
  replay->add_flag("--json", words.json, "JSON Lines");
  return replay;
}

CLI::App* addWatch(CLI::App& app, Words& words) {
  CLI::App* watch = app.add_subcommand("watch", "Keep catalogues current until Ctrl-C");
  watch->add_option("VOLUME", words.volumes,
                    "Folders, usually where volumes are mounted; without one, those registered");
  watch->add_flag("--print", words.print,
                  "Print what changes, as it is applied: added, changed, moved or removed and a "
                  "path, of several volumes a whole one; in it \\n, \\t and \\xNN stand for bytes "
                  "that could steer a terminal or break a line");
  return watch;
}

void addPlaceCommand(CLI::App* volumes, Words& words, const char* name, const char* what) {
  volumes->add_subcommand(name, what)
      ->add_option("PATH", words.volume, "Where it is mounted")
      ->required();
}

CLI::App* addVolumes(CLI::App& app, Words& words) {
  CLI::App* volumes = app.add_subcommand("volumes", "Look after the registry of volumes");
  volumes->require_subcommand(1);
  CLI::App* list = volumes->add_subcommand("list", "Print the registered volumes");
  list->add_flag("--json", words.json, "JSON Lines with all that is known");
  volumes->add_subcommand("refresh", "Bring the registry in step with what is mounted");
  addPlaceCommand(volumes, words, "add", "Have the next refresh register a mounted volume");
  addPlaceCommand(volumes, words, "remove", "Have the next refresh forget a volume");
  return volumes;
}

int volumes(const CLI::App& app, const Words& words) {
  if (app.got_subcommand("list")) return runVolumesList(words.options, words.json);
  if (app.got_subcommand("refresh")) return runVolumesRefresh(words.options);
  if (app.got_subcommand("add")) return runVolumesAdd(words.options, words.volume);
  return runVolumesRemove(words.options, words.volume);
}

int watch(const Words& words) {
  if (words.volumes.size() > 1 && !words.options.catalogue.empty())
    throw CLI::ValidationError("--catalogue", "names the catalogue of one volume only");
  return runWatch(words.options, words.volumes, words.print);
}

int replay(Words& words) {
  if (words.options.catalogue.empty()) throw CLI::RequiredError("--catalogue");
  words.replay.format = words.recordFormat();
  words.replay.json = words.json;
  return runReplay(words.options, words.replay);
}

long long readWhen(const std::string& text) {
  try {
    return parseWhen(text, std::time(nullptr));
  } catch (const std::invalid_argument& e) {
    throw CLI::ValidationError("--since", e.what());
  }
}

void refuseUnknownWords(const CLI::App& app) {
  const std::vector<std::string> unknown = app.remaining();
  if (!unknown.empty())
    throw CLI::ParseError("'" + unknown.front() + "' is no command or option",
                          CLI::ExitCodes::ExtrasError);
  if (app.get_subcommands().empty()) throw CLI::RequiredError("A command");
}

int printHelp(const CLI::App& app, const CLI::Success& asked) try {
  std::ostringstream text;
  const int result = app.exit(asked, text);
  printAnswer(text.str());
  return result;
} catch (const Failure& e) {
  complain(e.what());
  return kExitFailed;
}

int parseAndRun(CLI::App& app, int argc, char** argv) {
  Words words;
  addGlobalOptions(app, words.options);
  CLI::App* scan = addCommand(app, words, "scan", "Fill a fresh catalogue by a full scan");
  CLI::App* rescan = addCommand(app, words, "rescan", "Correct a catalogue where the disk differs");
  rescan->add_flag("--json", words.json, "The counts as JSON");
  CLI::App* list = addCommand(app, words, "list", "Print every entry");
  CLI::App* changes = addChanges(app, words);
  CLI::App* flush =
      addCommand(app, words, "flush", "Wait until the catalogue holds all that happened so far");
  CLI::App* status = addStatus(app, words);
  CLI::App* verify = addVerify(app, words);
  CLI::App* check = addCommand(app, words, "check", "Check the integrity of both databases");
  CLI::App* dumping = addDump(app, words);
  CLI::App* replaying = addReplay(app, words);
  CLI::App* watching = addWatch(app, words);
  CLI::App* registry = addVolumes(app, words);
  addForms(list, words);
  addForms(changes, words);

  app.parse(argc, argv);
  refuseUnknownWords(app);
  // Where the settings say nothing, larger pages than the library's own default: a scan is faster.
  KDPlatformInfo::setDefault("DataClassification", "SqlitePageSize", "4096");
  // And fewer entries held back: the walk goes on while they are written, and they are small.
  KDPlatformInfo::setDefault("DataClassification", "SortedInsertMapSize", "2000");
  // While it can still be told that the words make no sense; from here on it is the work that
  // fails.
  const long long since = changes->parsed() ? readWhen(words.since) : 0;
  startLogging(words.options.verbosity);
  if (scan->parsed()) return runScan(words.options, words.volume);
  if (rescan->parsed()) return runRescan(words.options, words.volume, words.json);
  if (list->parsed()) return runList(words.options, words.volume, words.form());
  if (verify->parsed()) return runVerify(words.options, words.volume, words.json);
  if (check->parsed()) return runCheck(words.options, words.volume);
  if (flush->parsed()) return runFlush(words.options, words.volume);
  if (status->parsed()) return runStatus(words.options, words.volume, words.json);
  if (replaying->parsed()) return replay(words);
  if (watching->parsed()) return watch(words);
  if (registry->parsed()) return volumes(*registry, words);
  if (dumping->parsed()) return runDump(words.files, words.recordFormat(), words.json);
  return runChanges(words.options, words.volume, {since, words.form(), !words.noFlush});
}

}  // namespace

int runCommandLine(int argc, char** argv) {
  CLI::App app("Answers what changed on a volume from a catalogue instead of a tree walk.", "kddc");
  app.set_version_flag("--version", "kddc " KDDC_VERSION);
  // None may be there, and any word, so that a misspelt command is refused by its name.
  app.require_subcommand(0, 1);
  app.allow_extras();
  app.fallthrough();  // to the global options, behind the command too
  try {
    return parseAndRun(app, argc, argv);
  } catch (const CLI::Success& e) {  // --help, --version
    return printHelp(app, e);
  } catch (const CLI::ParseError& e) {
    complain(std::string(e.what()) + "; see kddc --help");
    return kExitUsage;
  } catch (...) {
    complain(describeCurrentException());
    return kExitFailed;
  }
}

}  // namespace kddc

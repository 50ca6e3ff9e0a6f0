// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// control_seeds DIR: empties DIR and writes requests and answers to it, a file each.
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>

namespace {

constexpr const char* kLines[] = {
    R"({"version":1,"command":"flush","volume":"/data"})",
    R"({"version":1,"command":"status"})",
    R"({"version":1,"command":"rescan","volume_base64":"L/8="})",
    R"({"version":2,"command":"frob","more":[[[[[[[[[[1.5e3,true,null]]]]]]]]]]})",
    R"({"version":1,"ok":true})",
    R"({"version":1,"ok":false,"error":"gr\u00fc\u00df\n"})",
    R"({"version":1,"ok":true,"backlog_bytes":9,"backlog_records":8,"catalogue_base64":"L/8=",)"
    R"("failed_records":13,"last_commit":null,"last_comparison":10,"last_scan":6,"overflows":11,)"
    R"("process":7,"records_per_second":1.5,"refused_records":12,"rescan_count":14,)"
    R"("rescans":[{"reason":"s","time":15}],"rows":18446744073709551615,"stale_reason":"r",)"
    R"("stale_since":-5,"state":"stale","volume":"/data"})"};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: control_seeds DIR\n";
    return 2;
  }
  const std::filesystem::path folder = argv[1];
  std::filesystem::remove_all(folder);
  std::filesystem::create_directories(folder);
  int number = 0;
  for (const char* line : kLines)
    std::ofstream(folder / std::to_string(++number), std::ios::binary) << line;
}

// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// seeds DIR: empties DIR and makes a folder in it for each fuzz target, with what it starts from.
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include "tests/support/fake_volume.h"
#include "tests/support/record_files.h"
#include "tests/support/record_samples.h"

namespace {

using Texts = std::vector<std::string>;

// One record of each command, all of them as a stream, and all of them as a swap file.
Texts records() {
  Texts texts;
  std::string stream, swapFile;
  for (const kddc::test::Sample& sample : kddc::test::oneOfEachCommand()) {
    texts.push_back(kddc::test::wireOf(sample));
    stream += texts.back();
    swapFile += kddc::test::framed(texts.back());
  }
  texts.push_back(stream);
  texts.push_back(swapFile);
  return texts;
}

Texts events() {
  kddc::test::FakeVolume volume;
  const std::string longName(255, 'x');
  volume.mkdir("folder");
  volume.create("file");
  volume.write("file", 5);
  volume.rename("file", "folder/" + longName);
  volume.chmod("folder", 0700);
  volume.unlink("folder/" + longName);
  Texts texts;
  for (const auto& event : volume.read()) {
    const auto bytes = kddc::test::kernelBytes(event);
    texts.emplace_back(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  }
  return texts;
}

Texts requestsAndAnswers() {
  return {R"({"version":1,"command":"flush","volume":"/data"})",
          R"({"version":1,"command":"status"})",
          R"({"version":1,"command":"rescan","volume_base64":"L/8="})",
          R"({"version":2,"command":"frob","more":[[[[[[[[[[1.5e3,true,null]]]]]]]]]]})",
          R"({"version":1,"ok":true})",
          R"({"version":1,"ok":false,"error":"gr\u00fc\u00df\n"})",
          R"({"version":1,"ok":true,"backlog_bytes":9,"backlog_records":8,)"
          R"("catalogue_base64":"L/8=","failed_records":13,"last_commit":null,)"
          R"("last_comparison":10,"last_scan":6,"overflows":11,"process":7,)"
          R"("records_per_second":1.5,"refused_records":12,"rescan_count":14,)"
          R"("rescans":[{"reason":"s","time":15}],"rows":18446744073709551615,)"
          R"("stale_reason":"r","stale_since":-5,"state":"stale","volume":"/data"})"};
}

Texts volumeLists() {
  return {"/a\n/b\n", "/a\n\n/b", "/data\tnode2\n \t\n", std::string("\0\n/a\0b\n", 7),
          std::string(2046, 'a') + "\n" + std::string(2050, 'b') + "\n"};
}

Texts settings() {
  return {"# comment\n[DataClassification]\nSqlitePageSize = 4096 ; more\ndRawBufferDir: /var/b\n",
          "\xef\xbb\xbf[A]\r\nkey=-1\r\nkey=+2\r\n[B]\r\nkey=\r\n", "key = 9223372036854775808\n",
          "[a\n[" + std::string(50, 'x') + "]\n" + std::string(200, 'y') + "\nkey\n= 1\n",
          std::string("a=#b;c :d\n\0=1\n", 14)};
}

Texts pointsInTime() {
  return {"1700000000",
          "@1700000000.25",
          "2024-03-01",
          "2024-03-01T12:30",
          "90s",
          "15m",
          "2024-03-01 12:30:15",
          "2024-02-29T23:59:60Z",
          "2h",
          "3d",
          "1w",
          "2024-03-01T12:30:15.5+02:00",
          "0000-01-01",
          "9999-12-31",
          "2024-03-01T12:30-0130"};
}

Texts numbers() {
  return {"7 12 10\n66306 5 5\n0 1 1\n", "18446744073709551615 18446744073709551615 1\n",
          "7 18446744069414584319 18446744069414584319\n", "7 -1 -1\n", "7 5 6\n\nx\n7 12\n"};
}

// Of pseudo-random bytes as many as that; a target that follows a model takes each for a decision.
Texts decisions() {
  Texts texts;
  std::uint32_t state = 1;
  for (const std::size_t size : {65U, 257U, 1025U, 4096U}) {
    std::string& text = texts.emplace_back();
    while (text.size() < size) {
      state = state * 1664525 + 1013904223;
      text += static_cast<char>(state >> 24);
    }
  }
  return texts;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: seeds DIR\n";
    return 2;
  }
  const std::map<std::string, Texts> all = {
      {"fuzz_record", records()},    {"fuzz_dump", records()},
      {"fuzz_replay", records()},    {"fuzz_swap_file", records()},
      {"fuzz_apply", decisions()},   {"fuzz_settle", decisions()},
      {"fuzz_events", events()},     {"fuzz_control", requestsAndAnswers()},
      {"fuzz_settings", settings()}, {"fuzz_volume_lists", volumeLists()},
      {"fuzz_when", pointsInTime()}, {"fuzz_numbers", numbers()},
  };
  const std::filesystem::path folder = argv[1];
  std::filesystem::remove_all(folder);
  for (const auto& [target, texts] : all) {
    std::filesystem::create_directories(folder / target);
    for (std::size_t i = 0; i < texts.size(); ++i)
      std::ofstream(folder / target / std::to_string(i), std::ios::binary) << texts[i];
  }
}

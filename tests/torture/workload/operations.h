// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What can be done to a tree, by kind. Each operation finds its places itself and takes any failure
// as an answer, for other processes are at work in the same tree.
#pragma once

#include <span>

#include "tests/torture/workload/worker.h"

namespace kddc::torture {

struct Operation {
  unsigned weight;  // how often, beside the others
  void (*run)(Worker&);
};

std::span<const Operation> contentOperations();
std::span<const Operation> attributeOperations();
std::span<const Operation> nameOperations();
std::span<const Operation> burstOperations();
// On what lives throughout: written, renamed, moved and linked, never removed.
std::span<const Operation> keptOperations();

// Makes what lives throughout, unless an earlier workload did.
void makeKept(Worker& worker);
// Gives one file more links than a record's header can tell, and takes some away again.
void makeManyLinks(Worker& worker);

// Creates, writes, renames and removes `files` small files below `root`; the seconds it took.
double runBench(const std::string& root, long files);

}  // namespace kddc::torture

// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Chief header of volumes/: what an agent needs to look after catalogues beside using them.
#pragma once

#include "volumes/catalogue_files.h"

// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Chief header of volumes/: what an agent needs to look after volumes and catalogues beside using
// them, and the queue that brings it their records.
#pragma once

#include "buffer/in_memory_buffer.h"
#include "buffer/persistent_raw_buffer.h"
#include "buffer/raw_buffer.h"
#include "volumes/catalogue_files.h"
#include "volumes/volume_lists.h"
#include "volumes/volume_registry.h"

// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// KDDC_API marks what libkddc.so shows to its callers; everything else stays inside.
#pragma once

#define KDDC_API __attribute__((visibility("default")))

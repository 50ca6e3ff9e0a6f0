// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// An open catalogue, for tests of what is done with single rows of it.
#pragma once

#include "tests/support/catalogue.h"

namespace kddc::test {

struct RowOperations : OpenCatalogueTest {};

}  // namespace kddc::test

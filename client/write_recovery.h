// What a drive does at its start with the writes an earlier run left
// unsaved: the journal's records are uploaded where the origin still holds
// the version they were based on, and kept under CACHE_DIR/unsaved/
// otherwise; and every file kept there is named, until the user removes it.
#pragma once

#include <string>

#include "origin.h"
#include "write_journal.h"

void RecoverUnsavedWrites(Origin* origin, WriteJournal* journal);
void ListUnsavedFiles(const std::string& cache_dir);

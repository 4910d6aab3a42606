// The table runner of the read-path model; apart from the model itself, as
// the fuzz target links the model without GoogleTest.
#include <gtest/gtest.h>

#include "common/clock.h"
#include "support/read_path_model.h"
#include "support/temp_dir.h"

void RunReadPathScripts(const std::vector<ReadPathScript>& scripts, const _CACHECONFIG& config) {
  for (const ReadPathScript& script : scripts) {
    SCOPED_TRACE(script.name);
    Cache_UnbindAsyncQ();
    TempDir dir;
    {
      ReadPathModel model(dir.path() + "/", script.file_size, config,
                          [](const std::string& what) { ADD_FAILURE() << what; });
      model.Run(script.steps);
    }
    ResetClockForTesting();
  }
}

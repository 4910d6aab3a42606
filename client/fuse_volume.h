// The FUSE side of korvmount: the file-system operations, each a thin call
// into a RemoteDrive.
#pragma once

#define FUSE_USE_VERSION 31
#include <fuse.h>

#include "remote_drive.h"

// Operations whose private data (fuse_get_context()->private_data) is the
// RemoteDrive given to fuse_new.
const struct fuse_operations* VolumeOperations();

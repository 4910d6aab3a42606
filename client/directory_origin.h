// A local directory as the origin: the default that needs no server. An
// optional latency per request and a bandwidth cap make it behave like a
// remote service, for demonstrations and measurements.
#pragma once

#include <memory>
#include <string>

#include "origin.h"

std::unique_ptr<Origin> MakeDirectoryOrigin(const std::string& directory, const OriginOptions& options,
                                            std::string* error);

#pragma once

#include <cstddef>

#include "platform/FileNode.h"

// The caps of FileNode are settings of this platform, set by the host or a test before jobs run.
namespace FileNode {

void SET_MANIFEST_CAP(std::size_t bytes);
void SET_CONTENT_CAP(std::size_t bytes);

}  // namespace FileNode

// The tool's TIFF files: the reader (camera stacks, images, maps) and the writer (maps, stacks).
#pragma once

#include "TiffReader.h"
#include "TiffWriter.h"

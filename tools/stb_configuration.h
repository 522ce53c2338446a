// What is compiled of the picture libraries: two formats from memory, one format to memory.
#pragma once

#define STBI_ONLY_PNG
#define STBI_ONLY_JPEG
#define STBI_NO_STDIO
#define STBI_NO_HDR
#define STBI_NO_LINEAR
#define STBI_MAX_DIMENSIONS 65535
#define STBI_WRITE_NO_STDIO

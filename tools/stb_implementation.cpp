// The bodies of the picture libraries, in one place. Built without the project's warnings.
#define STB_IMAGE_IMPLEMENTATION
#define STB_IMAGE_WRITE_IMPLEMENTATION
#include "stb_configuration.h"

#include <stb/stb_image.h>
#include <stb/stb_image_write.h>

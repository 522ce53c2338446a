// The GPU engine: namespace tesk, on OpenGL 4.3 compute shaders.
//
// tesk_Init makes a context and leaves it current on the calling thread, to which everything of that
// context belongs from then on. Make a TexturePool and a ComputeProgramManager, call the manager's
// initOpenglParameters and the initProgramBinary group that you need, and hand both to nets and
// filters; both stay yours. Tear down in the opposite order: nets, images and filters,
// ComputeProgramManager::release, TexturePool::release, tesk_UnInit.
//
// GL's enumerants (formats, targets, access) are passed as their numbers; these headers include no
// GL header.
#pragma once

#include "gpu/opengl/glcnn/src/tesk/benchmark_net.h"
#include "gpu/opengl/glcnn/src/tesk/box_filter.h"
#include "gpu/opengl/glcnn/src/tesk/compute_program_manager.h"
#include "gpu/opengl/glcnn/src/tesk/fast_guided_filter.h"
#include "gpu/opengl/glcnn/src/tesk/gaussian_filter.h"
#include "gpu/opengl/glcnn/src/tesk/glutil/buffer.h"
#include "gpu/opengl/glcnn/src/tesk/glutil/buffer_pool.h"
#include "gpu/opengl/glcnn/src/tesk/glutil/compute_program.h"
#include "gpu/opengl/glcnn/src/tesk/glutil/image.h"
#include "gpu/opengl/glcnn/src/tesk/glutil/pbo_downloader.h"
#include "gpu/opengl/glcnn/src/tesk/glutil/texture_pool.h"
#include "gpu/opengl/glcnn/src/tesk/matrix_color.h"
#include "gpu/opengl/glcnn/src/tesk/net.h"
#include "gpu/opengl/glcnn/src/tesk/pyramid.h"
#include "gpu/opengl/glcnn/src/tesk/tesk.h"

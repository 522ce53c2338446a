// What reaches the driver: the dispatches of a scope, and whether they read uniform blocks.
#pragma once

#include <GL/glew.h>

#include "gpu/opengl/glcnn/src/tesk/glutil/half_stores.h"
#include "support/gl_hooks.h"

namespace testing_support {

/// Counts the dispatches while it lives. One at a time.
class DispatchRecorder {
public:
    DispatchRecorder() : entry(tried(__glewDispatchCompute), &dispatch) {
        counts() = {entry.original(), 0, 0, {0, 0, 0}};
    }

    int all() const { return counts().all; }
    /// Of programs whose weights stand in a uniform block.
    int with_uniform_weights() const { return counts().with_uniform_weights; }
    /// Work groups of the last one along x (0), y (1) and z (2).
    unsigned int groups_of_last(int axis) const { return counts().groups[axis]; }

private:
    /// A thread's first program tries the driver out with a dispatch of its own: before the count.
    static PFNGLDISPATCHCOMPUTEPROC& tried(PFNGLDISPATCHCOMPUTEPROC& entry_point) {
        tesk::halfStoresCutOff();
        return entry_point;
    }
    struct Counts {
        PFNGLDISPATCHCOMPUTEPROC driver;
        int all;
        int with_uniform_weights;
        unsigned int groups[3];
    };
    static Counts& counts() {
        static Counts of_the_scope = {};
        return of_the_scope;
    }
    static void GLAPIENTRY dispatch(GLuint x, GLuint y, GLuint z) {
        GLint program = 0;
        glGetIntegerv(GL_CURRENT_PROGRAM, &program);
        ++counts().all;
        if (glGetUniformBlockIndex(static_cast<GLuint>(program), "weight_buffer") !=
            GL_INVALID_INDEX) {
            ++counts().with_uniform_weights;
        }
        counts().groups[0] = x;
        counts().groups[1] = y;
        counts().groups[2] = z;
        counts().driver(x, y, z);
    }

    ReplacedEntryPoint<PFNGLDISPATCHCOMPUTEPROC> entry;
};

}  // namespace testing_support

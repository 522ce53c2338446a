// The order in which each group registers its programs, from a list of its own: the manifest is what
// is under test.
#include <algorithm>
#include <string>
#include <vector>

#include "support/gl_fixture.h"
#include "support/gl_hooks.h"

namespace {

using testing_support::GpuTest;
using testing_support::ReplacedEntryPoint;

using ProgramGroups = GpuTest;
using Names = std::vector<std::string>;
using Group = bool (tesk::ComputeProgramManager::*)(const tesk::BinFileInfo&,
                                                    tesk::ComputeProgramManager*);

/// Program objects in the order in which they are made, while it lives.
class CreationRecorder {
public:
    CreationRecorder() {
        created().clear();
        driver() = hook.original();
    }
    static std::vector<GLuint>& created() {
        static std::vector<GLuint> programs;
        return programs;
    }

private:
    static PFNGLCREATEPROGRAMPROC& driver() {
        static PFNGLCREATEPROGRAMPROC function = nullptr;
        return function;
    }
    static GLuint GLAPIENTRY record() {
        created().push_back(driver()());
        return created().back();
    }
    const ReplacedEntryPoint<PFNGLCREATEPROGRAMPROC> hook{__glewCreateProgram, &record};
};

/// A group's names by the order of their program objects.
Names registered_by(Group group, const Names& names, tesk::ComputeProgramManager& manager) {
    const CreationRecorder recorder;
    EXPECT_FALSE((manager.*group)(tesk::BinFileInfo(), &manager));
    EXPECT_EQ(static_cast<size_t>(manager.programCount()), names.size());
    Names found(CreationRecorder::created().size());
    for (const std::string& name : names) {
        if (!manager.IsExistComputeProgram(name)) {
            ADD_FAILURE() << name << " is not registered";
            continue;
        }
        const auto place = std::find(CreationRecorder::created().begin(),
                                     CreationRecorder::created().end(),
                                     manager.getComputeProgram(name)->getProgramID());
        const auto index = static_cast<size_t>(place - CreationRecorder::created().begin());
        if (index < found.size()) found[index] = name;
    }
    return found;
}

const Names general = {
    "char_to_float16_program", "YUV2RGB_program", "swapRGB_program", "fcOut_deAffine_program",
    "fcOut_deAffine_to_image_program", "load_fcNetOutput_to_Buffer", "init_fcNet_fromBuffer",
    "fullConnected_operator_program", "fullConnected_operator_ssbo_program",
    "upsampling_sigo_denoise_program", "bodylandmarks_affine_program", "alignment_argMax_program",
    "alignment_argMax_trans2buffer_program", "faceDetection_computeExp_program",
    "faceDetection_getFaceImage_program", "faceDetection_getFaceImage_forTracking_program",
    "faceDetection_preproess_program", "retinaNet_preprocess_shuffle_program",
    "transform_stnNet_ouput_to_buffer_program", "transform_face_output_program",
    "face_affine_program", "getLocalImgFromSrc_program", "preprocess_retinaNet_program",
    "gaussianPyramid_h_program", "gaussianPyramid_v_program", "transform_cls_probs_to_HWC_buffer",
    "transform_classification_program", "transform_outputTex_to_hwc_buffer_program",
    "transform_cls_probs_to_CHW_buffer", "transform_outputTex_to_CHW_buffer_program",
    "transform_rgb2y_program", "merge_pyramid_program", "merge_prePyramid_program",
    "sampling_program", "sampling_align_corners_program", "preprocess_program",
    "pelee_preprocess_program", "softmax_on_channels_program", "preprocess_bodylandmarks_program",
    "normalization_bodylandmarks_program", "preprocess_mobilenet_program",
    "loadGpuData2CpuData_softmax_program", "preprocess_static_segment_program",
    "pixelShuffle_downSample_1_in_4_out_program", "pixelShuffle_downSample_4_in_16_out_program",
    "pixelShuffle_downSample_muti_in_muti_out_program", "pixelShuffle_upSample_4_in_1_out_program",
    "pixelShuffle_upSample_16_in_4_out_program", "pixelShuffle_upSample_muti_in_muti_out_program",
    "mergeGuidedWithFilter_program", "binary_program", "h_gaussian_sum_16f_program",
    "v_gaussian_sum_16f_program", "h_sum_16f_program", "v_sum_16f_program", "h_sum_32f_program",
    "v_sum_32f_program", "h_sum_16f_optimization_program", "v_sum_16f_optimization_program",
    "h_sum_32f_optimization_program", "v_sum_32f_optimization_program",
    "v_sum_16f_optimization_with_division_program", "v_sum_32f_optimization_with_division_program",
    "boxfilter_average_16f_program", "boxfilter_average_32f_program", "dilate_erode_program",
    "convert_half_to_float", "code_decode", "copy_16f_to_16f_image2DArray", "copy_16f_to_16f",
    "copy_8uc_to_16f", "copy_8uc_to_16f_with_rotate", "add_half_texture", "sigmoid",
    "copyGpuData2Cpu", "downscale_upscale_program", "gesture_downscale_upscale_program",
    "gesture_downscale_upscale_with_avg_program", "hands_precoss_downscale_upscale_program",
    "downscale_rotate_program", "upscale_rotate_program", "rgba16f_merge_src_with_mask_program",
    "rgba8_merge_src_with_mask_program", "sample16f_program", "sample32f_program",
    "1in_dot_rrggbb_rggbbr_program", "2in_dot_product_program", "copyTex2ImgProgram",
    "setOnes_program", "cal_cov_program", "cal_var_program", "cal_ab_program", "cal_q_program",
    "max_pooling_stride1_program", "region2d_image_11x11x55_in_11x154x4_out_para_5x6x4_program",
    "hands_image_to_buf_program", "test_input2d_srcImg_program",
    "body_landmarks_image_to_buf_program"};

const Names audio = {
    "audio_classification_program", "audio_denoise_preprocess_program",
    "audio_denoise_postprocess_program", "tensor_reshape_step0_program",
    "tensor_reshape_step1_program", "fullConnected_operator_program",
    "fullConnected_operator_ssbo_program", "fullConnected_operator_ssbo_muti_in_4_out_program"};

const Names faces = {
    "get_left_right_eyes_points_program", "merge_left_right_eyes_to_main_program",
    "processEye_program", "copy_16f_to_16f_image2DArray", "fcOut_deAffine_program",
    "fullConnected_operator_program", "fullConnected_operator_ssbo_program",
    "alignment_argMax_program", "alignment_argMax_with_confidence_program",
    "faceDetection_getFaceImage_program", "faceDetection_getFaceImage_forTracking_program",
    "faceDetection_preproess_program", "transform_face_output_program", "face_affine_program",
    "sampling_program", "pixelShuffle_downSample_1_in_4_out_program",
    "pixelShuffle_downSample_4_in_16_out_program",
    "pixelShuffle_downSample_muti_in_muti_out_program", "pixelShuffle_upSample_4_in_1_out_program",
    "pixelShuffle_upSample_16_in_4_out_program", "pixelShuffle_upSample_muti_in_muti_out_program",
    "init_fcNet_fromBuffer"};

const Names segmentation = {
    "sigmoid", "sampling_program", "copy_16f_to_16f", "sampling_align_corners_program",
    "rgba16f_merge_src_with_mask_program", "rgba8_merge_src_with_mask_program",
    "preprocess_program", "pelee_preprocess_program", "h_gaussian_sum_16f_program",
    "v_gaussian_sum_16f_program", "char_to_float16_program", "YUV2RGB_program",
    "softmax_on_channels_program"};

TEST_F(ProgramGroups, GeneralProgramsInTheirOrder) {
    EXPECT_EQ(registered_by(&tesk::ComputeProgramManager::initProgramBinary, general, manager), general);
}

TEST_F(ProgramGroups, AudioProgramsInTheirOrder) {
    EXPECT_EQ(registered_by(&tesk::ComputeProgramManager::initProgramBinary_Audio, audio, manager), audio);
}

TEST_F(ProgramGroups, FaceProgramsInTheirOrder) {
    EXPECT_EQ(registered_by(&tesk::ComputeProgramManager::initProgramBinary_faceDetection, faces, manager), faces);
}

TEST_F(ProgramGroups, SegmentationProgramsInTheirOrder) {
    EXPECT_EQ(registered_by(&tesk::ComputeProgramManager::initProgramBinary_peleeSegment, segmentation, manager), segmentation);
}

}  // namespace

// The names beside a model.
#include <gtest/gtest.h>
#include <modelkit/names.h>

#include <string>
#include <vector>

#include "support/temporary_folder.h"

namespace {

using modelkit::ModelNames;
using testing_support::Folder;

const std::vector<unsigned char> MODEL = {1, 2, 3, 4};

ModelNames some_names() {
    ModelNames names;
    names.layers = {{0, "picture"}, {1, "a name with blanks"}, {2, ""}};
    names.inputs = {{0, {1, 3, 4, 5}, "picture"}};
    names.outputs = {{2, {}, "mask"}, {1, {7}, "other"}};
    return names;
}

TEST(Names, ComeBackAsTheyWereWritten) {
    const Folder folder;
    testing_support::write_file(folder / "m", MODEL);
    testing_support::write_file(modelkit::names_path(folder / "m"),
                                modelkit::names_text(MODEL, some_names()));
    ModelNames names;
    ASSERT_TRUE(modelkit::load_names(folder / "m", names));
    EXPECT_EQ(names.layers, some_names().layers);
    ASSERT_EQ(names.outputs.size(), 2u);
    EXPECT_EQ(names.outputs[0].name, "mask");
    EXPECT_TRUE(names.outputs[0].dims.empty());
    EXPECT_EQ(names.inputs[0].dims, (std::vector<int64_t>{1, 3, 4, 5}));
}

TEST(Names, OfAnotherModelAreNotTaken) {
    const Folder folder;
    testing_support::write_file(folder / "m", std::vector<unsigned char>{1, 2, 3, 5});
    testing_support::write_file(modelkit::names_path(folder / "m"),
                                modelkit::names_text(MODEL, some_names()));
    ModelNames names;
    EXPECT_FALSE(modelkit::load_names(folder / "m", names));
    EXPECT_TRUE(names.layers.empty());
}

TEST(Names, ThatAreDamagedAreNotTaken) {
    const Folder folder;
    testing_support::write_file(folder / "m", MODEL);
    const std::string good = modelkit::names_text(MODEL, ModelNames());
    ModelNames names;
    for (const char* line : {"layer", "layer x name", "layer -1 name", "layer 70000 name",
                             "input 0", "input 0 1x name", "output 1 1x-3 name", "what 1 name"}) {
        testing_support::write_file(modelkit::names_path(folder / "m"), good + line + "\n");
        EXPECT_FALSE(modelkit::load_names(folder / "m", names)) << line;
    }
    EXPECT_FALSE(modelkit::load_names(folder / "none", names));
}

TEST(Names, StayOnOneLine) {
    ModelNames names;
    names.layers = {{0, "two\nlines\x7f"}};
    EXPECT_NE(modelkit::names_text(MODEL, names).find("layer 0 two?lines?\n"), std::string::npos);
}

}  // namespace

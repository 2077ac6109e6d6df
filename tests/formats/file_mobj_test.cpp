// Tests of the file objects: path normalisation and URLs, examination on
// disk, the open-file index, creation under a parent, the directory walk,
// file lists, what a FileMobj releases when it goes, and the accessors.
#include "formats/file_mobj.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "core/memory.h"
#include "core/object_sets.h"
#include "core/object_store.h"
#include "core/paged_memory.h"
#include "core/stream.h"
#include "core/strings.h"
#include "formats/detection.h"
#include "shell/config.h"
#include "shell/errors.h"
#include "shell/julian.h"
#include "support/fresh_process.h"
#include "support/test_home.h"

namespace norvanta {
namespace {

[[maybe_unused]] const auto* const home = testing::use_private_home_for_this_process();

std::string normalised(const char* path) {
    char* text = nullptr;
    str_copy(path, text);
    normalise_path(text);
    std::string result = text;
    free_mem(text);
    return result;
}

TEST(FilePaths, NormalisationOfWhatAUserGives) {
    struct Row {
        const char* path;
        const char* expected;
        const char* legend;
    };
    const Row rows[] = {
        {"/home/anne/trajet été 1.gpx", "/home/anne/trajet été 1.gpx", "absolute, as it stands"},
        {"track.gpx", "http://track.gpx/", "a bare name is taken for a host"},
        {"www.example.org/t.gpx", "http://www.example.org/t.gpx", "no slash missing"},
        {"http://host", "http://host/", "a URL gets its slash after the host"},
        {"file:///home/anne/t.gpx", "/home/anne/t.gpx", "one slash stays"},
        {"file://C:/maps/t.gpx", "C:/maps/t.gpx", "with a drive no slash stays"},
        {"file:///C:\\maps", "C:\\maps", "slashes before a drive all go"},
        {"///srv//t.gpx", "/srv//t.gpx", "leading slashes only are reduced"},
        {"\\\\server\\share\\t.gpx", "\\\\server\\share\\t.gpx", "a network name is absolute"},
        {"D:\\t.gpx", "D:\\t.gpx", "a drive is absolute"},
        {"", "", "nothing to do"},
    };
    for (const Row& row : rows)
        EXPECT_EQ(normalised(row.path), row.expected) << row.legend;
}

TEST(FilePaths, UrlSchemesAndTheIndexKey) {
    struct Row {
        const char* path;
        FileClass url_class;
        const char* after;
        const char* key;
    };
    const Row rows[] = {
        {"HTTP://Host/A.gpx", FileClass::http_url, "http://Host/A.gpx", "http://Host/A.gpx"},
        {"Ecwp://host/i.ecw", FileClass::ecwp_url, "ecwp://host/i.ecw", "ecwp://host/i.ecw"},
        {"ftp://host/a", FileClass::unexamined, "ftp://host/a", "ftp://host/a"},
        {"http:/x", FileClass::unexamined, "http:/x", "http:/x"},
        {"C:\\Maps\\A.GPX", FileClass::unexamined, "C:\\Maps\\A.GPX", "C:/Maps/A.GPX"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.path);
        char* path = nullptr;
        str_copy(row.path, path);
        EXPECT_EQ(is_url(path), row.url_class);
        EXPECT_STREQ(path, row.after);
        char* key = nullptr;
        path_key_form(row.path, key);
        EXPECT_STREQ(key, row.key);
        free_mem(path);
        free_mem(key);
    }
}

TEST(FilePaths, WithTheWebTurnedOffNothingIsAUrl) {
    testing::in_fresh_process([] {
        testing::TestHome scratch;
        testing::write_file(scratch.file("n.cfg"), "HTTP OFF\n");
        config_use_file(scratch.file("n.cfg").c_str());
        char path[] = "HTTP://host/a.gpx";
        EXPECT_EQ(is_url(path), FileClass::unexamined);
        EXPECT_STREQ(path, "HTTP://host/a.gpx") << "nor is its scheme folded";
        EXPECT_EQ(examine_path(path, false).file_class, FileClass::unusable);
    });
}

class FileObjects : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        object_store_create();
        file_objects_init();
    }
    void SetUp() override { set_gblerr(ErrorCode::none); }
    void TearDown() override {
        set_gblerr(ErrorCode::none);
        for (ObjectId id : files_)
            del_obj(ObjectType::FileMobj, id);
    }

    ObjectId kept(ObjectId id) {
        files_.push_back(id);
        return id;
    }
    std::string made(const std::string& name, const std::string& bytes = "content") {
        testing::write_file(dir_.file(name), bytes);
        return dir_.file(name);
    }
    static FileMobj& record(ObjectId id) { return *find_obj_adr<FileMobj>(id); }
    PathFacts examined(std::string path, bool class_only = false) {
        return examine_path(path.data(), class_only);
    }

    testing::TestHome dir_;
    std::vector<ObjectId> files_;
};

TEST_F(FileObjects, ExaminationOnDisk) {
    const std::string named = made("trajet été n°1.gpx", "0123456789");
    const std::string fifo = dir_.file("pipe");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    struct Row {
        std::string path;
        FileClass file_class;
        const char* legend;
    };
    const Row rows[] = {
        {dir_.path(), FileClass::directory, "a directory, its closing slash cut"},
        {dir_.path().substr(0, dir_.path().size() - 1), FileClass::directory, "without slash"},
        {named, FileClass::regular_file, "blanks and accents"},
        {named + "/", FileClass::regular_file, "a file with a trailing slash"},
        {dir_.file("missing.gpx"), FileClass::unusable, "missing"},
        {fifo, FileClass::unchecked, "a FIFO is neither file nor directory"},
        {"http://localhost/x.gpx", FileClass::http_url, "a URL is not looked for on disk"},
    };
    for (const Row& row : rows)
        EXPECT_EQ(examined(row.path).file_class, row.file_class) << row.legend;

    const PathFacts facts = examined(named);
    struct stat status {};
    ASSERT_EQ(::stat(named.c_str(), &status), 0);
    EXPECT_EQ(facts.size, 10u);
    EXPECT_EQ(facts.modified, date_from_time(std::max(status.st_mtime, status.st_ctime)));
}

TEST_F(FileObjects, TwoGibibytesAndMoreAreUnusable) {
    const std::string big = made("big.bin", "");
    ASSERT_EQ(::truncate(big.c_str(), (int64_t{1} << 31) - 1), 0);
    EXPECT_EQ(examined(big).file_class, FileClass::regular_file) << "one byte short of 2 GiB";
    EXPECT_EQ(examined(big).size, 0x7FFFFFFFu);
    ASSERT_EQ(::truncate(big.c_str(), int64_t{1} << 31), 0);
    EXPECT_EQ(examined(big).file_class, FileClass::unusable) << "2 GiB";
}

TEST_F(FileObjects, CreationRegistrationAndTheIndex) {
    EXPECT_EQ(new_file_mobj(0, nullptr, "", false), 0) << "an empty path";
    EXPECT_EQ(new_file_mobj(0, "", nullptr, false), 0);

    const std::string path = made("Track.gpx");
    const ObjectId loose = kept(new_file_mobj(no_parent, dir_.path().c_str(), "Track.gpx", false));
    EXPECT_STREQ(record(loose).path, path.c_str()) << "directory and name joined";
    EXPECT_EQ(record(loose).file_class, FileClass::regular_file);
    EXPECT_EQ(find_open_file(path.c_str()), 0) << "no parent: not registered";

    const ObjectId open = kept(new_file_mobj(0, nullptr, path.c_str(), false));
    EXPECT_EQ(find_open_file(path.c_str()), open);
    std::string backslashed = path;
    std::replace(backslashed.begin(), backslashed.end(), '/', '\\');
    EXPECT_EQ(find_open_file(backslashed.c_str()), open) << "the key has '/' for '\\'";
    std::string other_case = path;
    other_case.replace(other_case.size() - 9, 1, "t");
    EXPECT_EQ(find_open_file(other_case.c_str()), 0) << "names differ by case on Linux";

    EXPECT_EQ(new_file_mobj(0, nullptr, path.c_str(), true), open) << "reused as it stands";
    record(open).file_class = FileClass::unexamined;
    EXPECT_NE(kept(new_file_mobj(0, nullptr, path.c_str(), true)), open)
        << "a file not yet examined is not reused";
    record(open).file_class = FileClass::gps_data;
    EXPECT_EQ(examined(path, true).file_class, FileClass::gps_data) << "class asked alone";
    EXPECT_EQ(examined(path, false).file_class, FileClass::regular_file);

    const ObjectId child = kept(new_file_mobj(open, dir_.path().c_str(), "child.gpx", false));
    EXPECT_EQ(record(child).owner_id, open);
    EXPECT_EQ(record(child).owner_type, ObjectType::FileMobj);
    EXPECT_EQ(oset_count(record(open).children), 1) << "the parent's children, on path_key";
    EXPECT_EQ(find_open_file(dir_.file("child.gpx").c_str()), child);
    EXPECT_EQ(record(child).file_class, FileClass::unusable) << "examined: it does not exist";

    del_obj(ObjectType::FileMobj, open);
    EXPECT_NE(find_open_file(path.c_str()), open) << "a deleted file leaves the index";
}

TEST_F(FileObjects, OpenPathWalksADirectoryAndRegistersAFile) {
    const std::string file = made("a.gpx");
    const ObjectId opened = kept(open_path(file.c_str()));
    EXPECT_EQ(record(opened).file_class, FileClass::regular_file);
    EXPECT_EQ(find_open_file(file.c_str()), opened);

    const std::string directory = dir_.path().substr(0, dir_.path().size() - 1);
    const ObjectId folder = kept(open_path(directory.c_str()));
    EXPECT_EQ(std::string(record(folder).path), directory + "/") << "a closing slash";
    EXPECT_EQ(record(folder).file_class, FileClass::directory);
    EXPECT_EQ(ds_count(record(folder).data_set, ObjectType::FileMobj), 1);

    const ObjectId web = kept(open_path("example.org"));
    EXPECT_STREQ(record(web).path, "http://example.org/");
    EXPECT_EQ(record(web).file_class, FileClass::http_url);
    EXPECT_EQ(open_path(""), 0);
}

TEST_F(FileObjects, TheDirectoryWalkNeverLoopsAndKeepsToFiles) {
    const std::string root = dir_.file("root/");
    for (const char* directory : {"root", "root/sub", "root/sub/deeper", "root/sp ace été"})
        ASSERT_EQ(::mkdir(dir_.file(directory).c_str(), 0700), 0);
    for (const char* file :
         {"root/a.gpx", "root/sub/b.gpx", "root/sub/deeper/c.gpx", "root/sp ace été/d.gpx"})
        made(file);
    ASSERT_EQ(::symlink("a.gpx", (root + "link.gpx").c_str()), 0);
    ASSERT_EQ(::symlink(".", (root + "loop").c_str()), 0);
    ASSERT_EQ(::symlink("..", (root + "sub/up").c_str()), 0);
    ASSERT_EQ(::symlink("nowhere", (root + "dangling").c_str()), 0);
    ASSERT_EQ(::mkfifo((root + "sub/pipe").c_str(), 0600), 0);

    const ObjectId directory = kept(new_file_mobj(no_parent, nullptr, root.c_str(), false));
    ObjectId set = 0;
    ds_create(set);
    record(directory).data_set = set;
    walk_directory(directory, set);
    EXPECT_FALSE(error_pending());

    std::map<std::string, int32_t> depths;
    for (ObjectId member = 0;
         ds_next_of_type(set, ObjectType::FileMobj, member, nullptr), member != 0;) {
        const FileMobj& found = record(member);
        EXPECT_EQ(found.walk_temporary, 1);
        EXPECT_EQ(found.file_class, FileClass::regular_file);
        depths[std::string(found.path).substr(root.size())] = found.walk_depth;
    }
    const std::map<std::string, int32_t> expected = {
        {"a.gpx", 1},     {"link.gpx", 1},         {"sp ace été/d.gpx", 2},
        {"sub/b.gpx", 2}, {"sub/deeper/c.gpx", 3},
    };
    EXPECT_EQ(depths, expected);
}

TEST_F(FileObjects, AWalkOfADirectoryThatIsNotThere) {
    const ObjectId missing =
        kept(new_file_mobj(no_parent, nullptr, dir_.file("gone/").c_str(), false));
    ObjectId set = 0;
    ds_create(set);
    record(missing).data_set = set;
    walk_directory(missing, set);
    EXPECT_EQ(current_error(), ErrorCode::wrong_parameters);
}

TEST_F(FileObjects, FileListsOfBothKinds) {
    const std::string present = made("present track.gpx");
    const std::string other = made("other.gpx");
    const std::string list =
        made("list.txt", "FileList V1.0\n" + present + "   \nx\n" + dir_.file("missing.gpx") +
                             "\nhttp://localhost/a.gpx\r\n" + other + "\n");
    const ObjectId plain = kept(new_file_mobj(0, nullptr, list.c_str(), false));
    ObjectId set = 0;
    ds_create(set);
    record(plain).data_set = set;
    detect_format(plain, set, true);
    EXPECT_EQ(record(plain).file_class, FileClass::file_list);

    std::vector<std::string> paths;
    for (ObjectId member = 0;
         ds_next_of_type(set, ObjectType::FileMobj, member, nullptr), member != 0;) {
        paths.emplace_back(record(member).path);
        EXPECT_EQ(record(member).owner_id, plain) << "linked under the list";
        EXPECT_EQ(find_open_file(record(member).path), member) << "registered";
    }
    EXPECT_EQ(paths, (std::vector<std::string>{present, "http://localhost/a.gpx", other}))
        << "trailing blanks cut; a short line, a missing file skipped";

    const std::string tav =
        made("tav.txt", "TavFileList V2.0\nWPT   " + present + "\nEIGHTCHR\t" + other +
                            "\nNINECHARS " + other + "\nNONE " + dir_.file("missing.gpx") + "\n");
    const ObjectId tagged = kept(new_file_mobj(0, nullptr, tav.c_str(), false));
    ObjectId tav_set = 0;
    ds_create(tav_set);
    record(tagged).data_set = tav_set;
    read_file_list(tagged, tav_set);
    std::vector<std::string> tags;
    for (ObjectId member = 0;
         ds_next_of_type(tav_set, ObjectType::FileMobj, member, nullptr), member != 0;)
        tags.emplace_back(record(member).tag, strnlen(record(member).tag, file_tag_bytes));
    EXPECT_EQ(tags, (std::vector<std::string>{"WPT", "EIGHTCHR"}))
        << "a tag over 8 characters makes no path; a missing file is skipped";
}

TEST_F(FileObjects, DeletionReleasesWhatTheFileHolds) {
    const std::string path = made("a.gpx", std::string(5000, 'x'));
    const ObjectId file = new_file_mobj(0, nullptr, path.c_str(), false);
    const ObjectId sibling = new_file_mobj(no_parent, nullptr, path.c_str(), false);
    const ObjectId member = new_file_mobj(no_parent, nullptr, path.c_str(), false);
    ASSERT_EQ(open_stream(file, 1024, true), 0);
    ObjectId memory = 0;
    ObjectId shared = 0;
    cre_memory_block(memory);
    cre_memory_block(shared);
    FileMobj& record_of_file = record(file);
    record_of_file.sibling = sibling;
    record_of_file.memory = memory;
    ds_create(record_of_file.data_set);
    const ObjectId set = record_of_file.data_set;
    ds_add(set, ObjectType::FileMobj, member);
    str_copy("information", record_of_file.info);
    str_copy("text/plain", record_of_file.mime_type);
    str_copy(path.c_str(), record_of_file.archive_path);
    const ObjectId holder = kept(new_file_mobj(no_parent, nullptr, path.c_str(), false));
    record(holder).memory = shared;
    const ObjectId leaver = new_file_mobj(no_parent, nullptr, path.c_str(), false);
    record(leaver).memory = shared;

    del_obj(ObjectType::FileMobj, file);
    EXPECT_FALSE(exist_obj(ObjectType::Mobj, memory)) << "its block";
    EXPECT_FALSE(exist_obj(ObjectType::FileMobj, sibling)) << "its sibling";
    EXPECT_FALSE(exist_obj(ObjectType::Mobj, set)) << "its set";
    EXPECT_FALSE(exist_obj(ObjectType::FileMobj, member)) << "the set's members";
    EXPECT_NE(current_stream().file_id, file) << "its stream";
    EXPECT_EQ(find_open_file(path.c_str()), 0) << "its place in the index";

    del_obj(ObjectType::FileMobj, leaver);
    EXPECT_TRUE(exist_obj(ObjectType::Mobj, shared)) << "a block another file holds stays";
}

TEST_F(FileObjects, ACopyOwnsItsStrings) {
    const ObjectId source = kept(new_file_mobj(0, nullptr, made("a.gpx").c_str(), false));
    str_copy("info", record(source).info);
    ObjectId destination = 0;
    cre_obj<FileMobj>(&destination);
    copy_obj(ObjectType::FileMobj, source, destination);
    EXPECT_NE(record(destination).path, record(source).path);
    EXPECT_STREQ(record(destination).path, record(source).path);
    EXPECT_NE(record(destination).info, record(source).info);
    EXPECT_NE(record(destination).path_key, record(source).path_key);
    del_obj(ObjectType::FileMobj, destination);
    EXPECT_STREQ(record(source).path, dir_.file("a.gpx").c_str()) << "the source keeps its own";
}

TEST_F(FileObjects, UnloadReturnsTheFileToItsStateBeforeLoading) {
    const ObjectId file = kept(new_file_mobj(0, nullptr, made("a.gpx").c_str(), false));
    FileMobj& loaded = record(file);
    ds_create(loaded.data_set);
    const ObjectId set = loaded.data_set;
    cre_memory_block(loaded.memory);
    const ObjectId memory = loaded.memory;
    loaded.archive_opened = 1;
    append_bytes(*find_obj_adr<Mobj>(memory), "0123456789012345678901234", 25);
    ASSERT_EQ(open_stream(file, 0, true), 0);

    unload_file(file);
    EXPECT_EQ(loaded.data_set, 0);
    EXPECT_EQ(loaded.memory, 0);
    EXPECT_EQ(loaded.archive_opened, 0) << "nothing is expanded any more";
    EXPECT_FALSE(exist_obj(ObjectType::Mobj, set));
    EXPECT_FALSE(exist_obj(ObjectType::Mobj, memory));
    EXPECT_NE(current_stream().file_id, file) << "no window into the freed block";
    EXPECT_TRUE(exist_obj(ObjectType::FileMobj, file));
}

TEST_F(FileObjects, AccessorsAnswerForMissingFilesAndMembers) {
    const ObjectId gone = new_file_mobj(no_parent, nullptr, made("a.gpx").c_str(), false);
    del_obj(ObjectType::FileMobj, gone);
    EXPECT_STREQ(file_path_of(gone), "");
    EXPECT_EQ(file_format_of(gone), FileFormat::missing_file);
    EXPECT_EQ(get_filemobj_name(gone), "");
    EXPECT_FALSE(error_pending()) << "a missing file is an answer, not an error";

    const ObjectId member = kept(new_file_mobj(no_parent, nullptr, made("b.zip").c_str(), false));
    record(member).is_member = 1;
    record(member).member_size = 333;
    EXPECT_EQ(file_size_of(member), 333u) << "a member without memory";
    cre_memory_block(record(member).memory);
    append_bytes(*find_obj_adr<Mobj>(record(member).memory), "0123456789", 10);
    EXPECT_EQ(file_size_of(member), 10u) << "an expanded member";

    ObjectId set = 0;
    ds_create(set);
    record(member).data_set = set;
    EXPECT_EQ(file_data_set_of(member), set);
    ds_destroy(set);
    EXPECT_EQ(file_data_set_of(member), 0) << "a set that is gone";
}

TEST_F(FileObjects, AMemoryFileIsNamedByItsSwapFile) {
    const std::string path = made("a.gpx");
    const ObjectId disk = kept(new_file_mobj(no_parent, nullptr, path.c_str(), false));
    EXPECT_EQ(get_filemobj_name(disk), path);

    const ObjectId memory = kept(new_memory_file());
    EXPECT_EQ(record(memory).file_class, FileClass::regular_file);
    Mobj* block = find_obj_adr<Mobj>(record(memory).memory);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(block->page_size, memory_file_page_bytes);
    append_bytes(*block, "$GPGGA,1\r\n", 10);
    const std::string name = get_filemobj_name(memory);
    ASSERT_FALSE(name.empty());
    EXPECT_EQ(testing::read_file(name), "$GPGGA,1\r\n") << name;
}

TEST_F(FileObjects, ThreadsRegisterAndFindTheirOwnFiles) {
    constexpr int files_per_thread = 100;
    auto work = [this](const std::string& prefix, int& found) {
        for (int i = 0; i < files_per_thread; ++i) {
            const std::string path = dir_.file(prefix + std::to_string(i));
            const ObjectId id = new_file_mobj(0, nullptr, path.c_str(), false);
            if (find_open_file(path.c_str()) == id) ++found;
            del_obj(ObjectType::FileMobj, id);
        }
    };
    int found_a = 0;
    int found_b = 0;
    std::thread a(work, "a", std::ref(found_a));
    std::thread b(work, "b", std::ref(found_b));
    a.join();
    b.join();
    EXPECT_EQ(found_a, files_per_thread);
    EXPECT_EQ(found_b, files_per_thread);
}

} // namespace
} // namespace norvanta

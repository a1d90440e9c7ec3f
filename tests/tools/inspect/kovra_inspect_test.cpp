// kovra_inspect on files built byte by byte: the reader's messages, the summary, the exports read back on their
// own (HDF5 and PNG through their libraries), and runs of the built program.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <hdf5.h>
#include <png.h>
#include <sys/wait.h>
#include <tiffio.h>

#include <filesystem>
#include <random>

#include "FileBytes.hpp"
#include "RunProgram.hpp"
#include "TempDir.hpp"
#include "inspect/Inspect.hpp"
#include "inspect/TriggerFile.hpp"

namespace {

using namespace kovra::inspect;
using i32 = std::int32_t;
using i64 = std::int64_t;
using L32 = std::numeric_limits<i32>;
using L64 = std::numeric_limits<i64>;
using Triggers = std::optional<std::vector<i64>>;
constexpr i32 px = 65536;

// Records as the file lays them out (little-endian, no padding): files are written and read back through these.
struct P {
  i32 x, y;
  i64 toa;
  bool operator==(const P&) const = default;
};
struct E {
  i32 x, y;
  i64 t;
  std::uint64_t n;
  double psd;
  bool operator==(const E&) const = default;
};

template <typename Entry_Type>
FileBytes block_of(const char* id, const std::vector<Entry_Type>& entries) {
  const auto* bytes = reinterpret_cast<const char*>(entries.data());
  return FileBytes().block(id, FileBytes().raw({bytes, bytes + entries.size() * sizeof(Entry_Type)}));
}
template <typename Row>
std::string file_of(const std::vector<Row>& rows, const Triggers& triggers = std::nullopt) {
  FileBytes content = block_of(std::is_same_v<Row, E> ? "events" : "photons", rows);
  if (triggers) content.raw(block_of("extTrigs", *triggers).data);
  return FileBytes::file(std::is_same_v<Row, E> ? 3 : 2, content).data;
}

// Extremes of every field, and values whose text needs all 17 digits.
const std::vector<E> wide = {{0, 0, 0, 1, 0.0},
                             {-1, L32::max(), L64::min(), 2, 0.1 + 0.2},
                             {L32::min(), -px / 3, L64::max(), ~std::uint64_t{0}, 1e-300},
                             {12345, 6 * px, 987654321, 7, -2.5e-9}};

template <typename Function_Type>
std::string message_of(const Function_Type& open) try {
  open();
  return "(none)";
} catch (const std::exception& e) {
  return e.what();
}
/// What opening `name` throws, with the inspector's reader and with the library's.
template <typename Record_Type>
std::pair<std::string, std::string> messages_of(const std::string& name) {
  return {message_of([&] { RecordFile<Record_Type>{name}; }),
          message_of([&] { typename Record_Traits<Record_Type>::Handler().load_file(name); })};
}

class InspectTest : public ::testing::Test {
 protected:
  // Out of time order; triggers first, then an events block that a later one replaces.
  const FileBytes known_content = block_of("extTrigs", std::vector<i64>{500, 100, 900})
                                      .raw(block_of("events", std::vector<E>{{1, 1, 1, 1, 0.0}}).data)
                                      .raw(block_of("events", std::vector<E>{{10 * px, 20 * px, 1000, 1, 0},
                                                                             {201 * px / 2, 5 * px, 2000, 3, 2e-9},
                                                                             {255 * px, 255 * px, 5000, 2, 5e-9},
                                                                             {-px, 3 * px, 4000, 32, 1e-8},
                                                                             {3 * px, 300 * px, 3000, 1, 0.0},
                                                                             {7 * px, 7 * px, 3500, 8, NAN}})
                                               .data);
  void SetUp() override { write_bytes(dir.file("known.kovraevent"), FileBytes::file(3, known_content).data); }

  /// Runs the built program in the test's directory; returns its exit status, its output in `out` and `err`.
  int run(const std::string& arguments) {
    Program_Outcome outcome = run_program(dir, KOVRA_INSPECT_PATH, arguments);
    out = std::move(outcome.out);
    err = std::move(outcome.err);
    return outcome.status;
  }

  const TempDir dir;
  std::string out, err;
};

TEST_F(InspectTest, BadBlocksGiveTheLibraryReadersMessages) {
  const auto junk = [](const char* id, std::size_t n) { return block_of(id, std::vector<char>(n, 'a')); };
  const std::tuple<bool, FileBytes, const char*> cases[] = {
      // photons?, content, message
      {false, block_of("extTrigs", std::vector<i64>{1, 2}), "File does not contain event data!"},
      {false, junk("events", 32).raw(junk("photons", 0).data), "Block identifier not recognized!"},
      {false, junk("events", 40), "File contains partial events!"},
      {false, junk("events", 32).raw(junk("extTrigs", 3).data), "File contains partial external triggers!"},
      {true, junk("photons", 24), "File contains partial photons!"},
      {true, FileBytes(), "File does not contain photon data!"},
  };
  const std::string bad = dir.file("bad");
  for (const auto& [photons, content, message] : cases) {
    write_bytes(bad, FileBytes::file(photons ? 2 : 3, content).data);
    const auto [tool, library] = photons ? messages_of<PhotonEvent>(bad) : messages_of<Event>(bad);
    EXPECT_EQ(tool, message);
    EXPECT_EQ(library, message);
  }
  // The content cut at every byte inside a sound frame: partial block headers, blocks running past the end.
  for (std::size_t length = 0; length < known_content.data.size(); ++length) {
    write_bytes(bad, FileBytes::file(3, FileBytes().raw(known_content.data.substr(0, length))).data);
    const auto [tool, library] = messages_of<Event>(bad);
    EXPECT_EQ(tool, library) << length;
  }
}

template <typename Entry_Type>
std::vector<Entry_Type> read_h5(hid_t file, const char* path, hid_t type) {
  const hid_t dataset = H5Dopen2(file, path, H5P_DEFAULT), space = H5Dget_space(dataset);
  std::vector<Entry_Type> entries(static_cast<std::size_t>(H5Sget_simple_extent_npoints(space)));
  entries.reserve(1);  // a buffer even for no entries
  EXPECT_GE(H5Dread(dataset, type, H5S_ALL, H5S_ALL, H5P_DEFAULT, entries.data()), 0) << path;
  H5Sclose(space);
  H5Dclose(dataset);
  return entries;
}

/// A text attribute as h5py sees it: "str:" and its text for a variable-length UTF-8 string (h5py gives a str),
/// "bytes" for any other string type (h5py gives bytes).
std::string read_textAttribute(hid_t object, const char* name) {
  const hid_t attribute = H5Aopen(object, name, H5P_DEFAULT), type = H5Aget_type(attribute);
  std::string seen = "bytes";
  if (H5Tis_variable_str(type) > 0 && H5Tget_cset(type) == H5T_CSET_UTF8) {
    char* text = nullptr;
    EXPECT_GE(H5Aread(attribute, type, &text), 0) << name;
    seen = std::string("str:") + text;
    H5free_memory(text);
  }
  H5Tclose(type);
  H5Aclose(attribute);
  return seen;
}

/// Exports `rows` in chunks of two and reads them back by field name into the test's own layout.
template <typename Row, typename Record_Type>
void check_hdf5(const TempDir& dir, const std::vector<Row>& rows, const Triggers& triggers) {
  write_bytes(dir.file("in"), file_of(rows, triggers));
  write_hdf5(dir.file("out.h5"), RecordFile<Record_Type>(dir.file("in"), 2));
  const hid_t file = H5Fopen(dir.file("out.h5").c_str(), H5F_ACC_RDONLY, H5P_DEFAULT);
  const hid_t type = H5Tcreate(H5T_COMPOUND, sizeof(Row));
  H5Tinsert(type, "x", offsetof(Row, x), H5T_NATIVE_INT32);
  H5Tinsert(type, "y", offsetof(Row, y), H5T_NATIVE_INT32);
  if constexpr (std::is_same_v<Row, E>) {
    H5Tinsert(type, "t", offsetof(E, t), H5T_NATIVE_INT64);
    H5Tinsert(type, "nPhotons", offsetof(E, n), H5T_NATIVE_UINT64);
    H5Tinsert(type, "psd", offsetof(E, psd), H5T_NATIVE_DOUBLE);
  } else {
    H5Tinsert(type, "toa", offsetof(P, toa), H5T_NATIVE_INT64);
  }
  constexpr bool events = std::is_same_v<Row, E>;
  const char* records = events ? "events" : "photons";
  EXPECT_EQ(read_h5<Row>(file, records, type), rows);
  const hid_t dataset = H5Dopen2(file, records, H5P_DEFAULT);
  std::vector<std::string> units;
  for (const char* field : {"x", "y", events ? "t" : "toa", "nPhotons", "psd"}) {
    const std::string name = std::string(field) + "_unit";
    if (H5Aexists(dataset, name.c_str()) > 0) units.push_back(name + " " + read_textAttribute(dataset, name.c_str()));
  }
  H5Dclose(dataset);
  const std::vector<std::string> eventUnits = {"x_unit str:pixel", "y_unit str:pixel", "t_unit str:s",
                                               "nPhotons_unit str:photons", "psd_unit str:s"};
  const std::vector<std::string> photonUnits = {"x_unit str:pixel", "y_unit str:pixel", "toa_unit str:s"};
  EXPECT_EQ(units, events ? eventUnits : photonUnits);
  const bool hasTriggers = H5Lexists(file, "extTriggers", H5P_DEFAULT) > 0;
  EXPECT_EQ(hasTriggers ? Triggers(read_h5<i64>(file, "extTriggers", H5T_NATIVE_INT64)) : std::nullopt, triggers);
  if (hasTriggers) {
    const hid_t times = H5Dopen2(file, "extTriggers", H5P_DEFAULT);
    EXPECT_EQ(read_textAttribute(times, "unit"), "str:s");
    H5Dclose(times);
  }
  H5Tclose(type);
  H5Fclose(file);
}

TEST_F(InspectTest, Hdf5ExportReadsBack) {
  check_hdf5<E, Event>(dir, wide, Triggers{{7, -3, L64::min()}});
  check_hdf5<P, PhotonEvent>(dir, {{1, 2, 3}, {-4, L32::max(), L64::max()}, {5, 6, -7}}, std::nullopt);
  check_hdf5<E, Event>(dir, {}, Triggers(std::in_place));
}

/// The decoded image's width and RGB bytes, through libpng (which checks every chunk).
std::pair<png_uint_32, std::vector<std::uint8_t>> decode_png(const std::string& file) {
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  EXPECT_NE(png_image_begin_read_from_file(&image, file.c_str()), 0) << image.message;
  image.format = PNG_FORMAT_RGB;
  std::vector<std::uint8_t> rgb(PNG_IMAGE_SIZE(image));
  EXPECT_NE(png_image_finish_read(&image, nullptr, rgb.data(), 0, nullptr), 0) << image.message;
  return {image.width, rgb};
}

TEST_F(InspectTest, PngSizeAndPixels) {
  const std::string photons = dir.file("p.kovraphot"), png = dir.file("m.png");
  write_bytes(photons, file_of<P>({}));
  // Detector size, binning, image side; an empty file gives a black image.
  for (const auto& [size, bin, side] : {std::tuple{256, 0.5, 512u}, {100, 3.0, 34u}, {3, 0.3, 10u}}) {
    write_positionImage(png, RecordFile<PhotonEvent>(photons), size, bin);
    EXPECT_EQ(decode_png(png), std::pair(side, std::vector<std::uint8_t>(std::size_t{side} * side * 3, 0)));
  }
  EXPECT_THROW(Position_Histogram2D::get_geometry(257, 1.0 / 32), std::invalid_argument);  // 8224 a side

  // 99 records in pixel (0, 0), 9 in (1, 0) just below y 1; x -1 and y 4 lie outside.
  std::vector<P> rows(99, P{0, 0, 0});
  rows.insert(rows.end(), 9, P{px, px - 1, 0});
  rows.insert(rows.end(), {{-1, 0, 0}, {0, 4 * px, 0}});
  write_bytes(photons, file_of(rows));
  EXPECT_EQ(write_positionImage(png, RecordFile<PhotonEvent>(photons), 4, 1.0), 2u);
  // Colours at log(1 + n) / log(100) along the ramp: its top, then log 10 / log 100, its middle.
  std::vector<std::uint8_t> expected = {252, 255, 164, 188, 55, 84};
  expected.resize(4 * 4 * 3);
  EXPECT_EQ(decode_png(png), std::pair(4u, expected));
}

/// The names in `dir`, sorted.
std::vector<std::string> get_names(const TempDir& dir) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(dir.path())) names.push_back(entry.path().filename());
  std::ranges::sort(names);
  return names;
}

TEST_F(InspectTest, ProgramOutput) {
  write_bytes(dir.file("p.kovraphot"), file_of<P>({{-7, 3 * px, 640000000000}}));
  write_bytes(dir.file("empty.kovraevent"), file_of<E>({}, Triggers(std::in_place)));
  write_bytes(dir.file("wide.kovraevent"), file_of(wide));
  write_bytes(dir.file("photons.kovraevent"), file_of<P>({{1, 2, 3}}));
  write_bytes(dir.file("swapped.kovraphot"), file_of<P>({{1, 2, 10}, {1, 2, 5}, {1, 2, 7}, {1, 2, 3}}));
  write_bytes(dir.file("one.kovraevent"), file_of<E>({{0, 0, 5, 1, 0}}, Triggers{{3}}));
  write_bytes(dir.file("back.kovraevent"), file_of<E>({{0, 0, 5, 1, 0}}, Triggers{{3, 9, 4}}));
  std::filesystem::create_directory(dir.file("folder.h5"));
  // Every time-of-flight output, and the others: none of them is written when the time of flight fails.
  const std::string tof = " --spectrum t.csv --stack-hdf5 t.h5 --stack-tiff t.tif --plot t.png --hdf5 e.h5 -i e.png";
  const std::tuple<std::string, int, std::string, std::string> cases[] = {
      // arguments, status, output has, error
      {"known.kovraevent", 0,
       "file          known.kovraevent\ntype          events\nrecords       6\n"
       "time          1.5625e-06 s .. 7.8125e-06 s\nspan          6.25e-06 s\n"
       "mean rate     960000 per s\nx extent      -1 .. 255 px\ny extent      3 .. 300 px\n"
       "ext. triggers 3, 1.5625e-07 s .. 1.40625e-06 s, span 1.25e-06 s\n"
       "one-photon    2 (33.3%)\n\nphotons per event\n"
       "      1 |########################################| 2 (33.3%)\n"
       "      2 |####################                    | 1 (16.7%)\n"
       "      3 |####################                    | 1 (16.7%)\n"
       "      4 |                                        | 0 (0.0%)\n"
       "    5-8 |####################                    | 1 (16.7%)\n"
       "   9-16 |                                        | 0 (0.0%)\n"
       "  17-32 |####################                    | 1 (16.7%)\n",
       ""},
      // Pulse shapes 2, 5 and 10 ns in ten bins of 0.8 ns; one-photon events have none.
      {"known.kovraevent", 0, "    [2, 2.8) |########################################| 1 (25.0%)\n", ""},
      {"known.kovraevent", 0, "[9.2, 10] |########################################| 1 (25.0%)\n  not finite: 1\n", ""},
      {"p.kovraphot", 0,
       "file          p.kovraphot\ntype          photons\nrecords       1\n"
       "time          1000 s .. 1000 s\nspan          0 s\nmean rate     n/a (zero span)\n"
       "x extent      -0.00010681152 .. -0.00010681152 px\ny extent      3 .. 3 px\ntime order    non-decreasing\n"
       "ext. triggers absent\n",
       ""},
      {"swapped.kovraphot", 0,
       "time order    2 records earlier than the one before, the first is record 1 (kovra_brantel takes its slower "
       "step-by-step path)\n",
       ""},
      {"empty.kovraevent", 0, "type          events\nrecords       0\next. triggers empty\n", ""},
      // The span of the whole 64-bit time range, and the top photon-count bin.
      {"wide.kovraevent", 0, "span          2.88230376e+10 s\n", ""},
      {"wide.kovraevent", 0, "\n  9223372036854775809-18446744073709551615 |#", ""},
      {"p.kovraphot --csv -", 0, "x,y,toa,x_px,y_px,toa_s\n-7,196608,640000000000,-0.0001068115234375,3,1000\n", ""},
      {"known.kovraevent --csv - --size 25 -i m.png", 0,
       "x,y,t,x_px,y_px,t_s,nPhotons,psd_s\n655360,1310720,1000,10,20,1.5624999999999999e-06,1,0\n",
       "kovra_inspect: 4 of 6 events lie outside the image of 25 x 25 pixels and were left out\n"},
      // Every field at its extremes, in the shortest text that reads back to the same value.
      // The selection reaches the image: of the events with 8 photons or more only one, outside it.
      {"known.kovraevent --photons-min 8 --size 25 -i m.png", 0, "",
       "kovra_inspect: 1 of 6 events lies outside the image of 25 x 25 pixels and was left out\n"},
      {"wide.kovraevent --csv -", 0,
       "x,y,t,x_px,y_px,t_s,nPhotons,psd_s\n0,0,0,0,0,0,1,0\n-1,2147483647,-9223372036854775808,-1.52587890625e-05,"
       "32767.99998474121,-14411518807.585587,2,0.30000000000000004\n-2147483648,-21845,9223372036854775807,-32768,"
       "-0.3333282470703125,14411518807.585587,18446744073709551615,1e-300\n12345,393216,987654321,0.1883697509765625,"
       "6,1.5432098765625,7,-2.5e-09\n",
       ""},
      {"--hdf5 x.h5 known.kovraevent", 0, "", ""},
      {"photons.kovraevent", 1, "", "kovra_inspect: photons.kovraevent: File has wrong type!\n"},
      {"known.kovraevent --hdf5 folder.h5", 1, "",
       "kovra_inspect: known.kovraevent: cannot write HDF5 file \"folder.h5\": Is a directory\n"},
      {"known.kovraevent --image known.kovraevent/m.png", 1, "",
       "kovra_inspect: known.kovraevent: cannot write PNG file \"known.kovraevent/m.png\": Not a directory\n"},
      {"one.kovraevent --tof-max 1 --plot one.kovraevent/t.png", 1, "",
       "kovra_inspect: one.kovraevent: cannot write PNG file \"one.kovraevent/t.png\": Not a directory\n"},
      {"wide.kovraevent" + tof, 1, "",
       "kovra_inspect: wide.kovraevent: no time of flight: the file's trigger list is absent\n"},
      {"empty.kovraevent" + tof, 1, "",
       "kovra_inspect: empty.kovraevent: no time of flight: the file's trigger list is empty\n"},
      {"back.kovraevent" + tof, 1, "",
       "kovra_inspect: back.kovraevent: Trigger times out of order: trigger 2 (4 ticks) is earlier than trigger 1 "
       "(9 ticks)!\n"},
      {"one.kovraevent" + tof, 1, "",
       "kovra_inspect: one.kovraevent: no time-of-flight range: the triggers give no interval between two of them; "
       "give --tof-max\n"},
      {"one.kovraevent --tof-max 1 --tof-bins 1000 --size 4096" + tof, 1, "",
       "kovra_inspect: one.kovraevent: the time-of-flight stack needs 64000 MiB (1000 bins x 4096 x 4096 cells x 4 "
       "bytes), more than --stack-memory 1024 MiB; use fewer --tof-bins, a larger --binning or a smaller --size, or "
       "raise --stack-memory\n"},
      {"one.kovraevent --tof-max 1e-8" + tof, 1, "",
       "kovra_inspect: one.kovraevent: 100 time-of-flight bins from 0 to 6 ticks would be narrower than one tick\n"},
  };
  for (const auto& [arguments, status, output, error] : cases) {
    const int exitStatus = run(arguments);
    EXPECT_EQ(std::tuple(exitStatus, out.empty(), err), std::tuple(status, output.empty(), error)) << arguments;
    EXPECT_THAT(out, ::testing::HasSubstr(output)) << arguments;
  }
  EXPECT_EQ(read_bytes(dir.file("x.h5")).substr(0, 8), "\x89HDF\r\n\x1a\n");
  // The outputs asked for and nothing else: none of a run that failed, no temporary beside the folder.
  EXPECT_EQ(get_names(dir),
            (std::vector<std::string>{"back.kovraevent", "empty.kovraevent", "folder.h5", "known.kovraevent", "m.png",
                                      "one.kovraevent", "p.kovraphot", "photons.kovraevent", "stderr.txt", "stdout.txt",
                                      "swapped.kovraphot", "wide.kovraevent", "x.h5"}));
}

/// The time of flight as defined, by a walk over all triggers: the largest not above t.
std::optional<std::uint64_t> plain_tof(const std::vector<i64>& triggers, i64 t) {
  std::optional<std::uint64_t> best;
  for (const i64 trigger : triggers) {
    if (trigger <= t) best = static_cast<std::uint64_t>(t) - static_cast<std::uint64_t>(trigger);
  }
  return best;
}

/// Events at random times around a trigger list with equal triggers, in time order and shuffled.
struct TofCase {
  std::vector<i64> triggers{1000, 1000, 1500, 2600, 3000, 3000, 3000, 4100, 5000};
  std::vector<E> events;
  explicit TofCase(bool shuffled) {
    std::mt19937_64 random(11);
    for (int i = 0; i < 3000; ++i) {
      const auto x = static_cast<i32>(random() % (10 * px)) - px;
      events.push_back(
          {x, static_cast<i32>(random() % (8 * px)), static_cast<i64>(random() % 7000), 1 + random() % 5, 1e-9});
    }
    // Records exactly at triggers, and one just before the first.
    for (const i64 t : {i64{999}, i64{1000}, i64{3000}, i64{5000}}) events.push_back({0, 0, t, 2, 1e-9});
    std::sort(events.begin(), events.end(), [](const E& a, const E& b) { return a.t < b.t; });
    if (shuffled) std::shuffle(events.begin(), events.end(), random);
  }
};

TEST_F(InspectTest, TriggerFileClockFindsTheLatestTriggerAcrossChunks) {
  for (const bool shuffled : {false, true}) {
    const TofCase c(shuffled);
    write_bytes(dir.file("tof.kovraevent"), file_of(c.events, c.triggers));
    const RecordFile<Event> file(dir.file("tof.kovraevent"), 3);
    for (const std::uint64_t chunk : {1u, 2u, 4u, 100u}) {
      TriggerFile_Clock<Event> clock(file, chunk);
      for (const E& e : c.events) ASSERT_EQ(clock.get(Time{e.t}), plain_tof(c.triggers, e.t)) << e.t << " " << chunk;
    }
  }
}

/// The stack as libtiff reads it back: pages of rows of 32-bit counts.
std::vector<std::vector<std::uint32_t>> read_tiff(const std::string& name) {
  std::vector<std::vector<std::uint32_t>> pages;
  TIFF* tiff = TIFFOpen(name.c_str(), "r");
  EXPECT_NE(tiff, nullptr);
  if (!tiff) return pages;
  do {
    std::uint32_t width = 0, height = 0;
    std::uint16_t bits = 0, format = 0;
    TIFFGetField(tiff, TIFFTAG_IMAGEWIDTH, &width);
    TIFFGetField(tiff, TIFFTAG_IMAGELENGTH, &height);
    TIFFGetField(tiff, TIFFTAG_BITSPERSAMPLE, &bits);
    TIFFGetField(tiff, TIFFTAG_SAMPLEFORMAT, &format);
    EXPECT_EQ(std::tuple(bits, format), std::tuple(32, SAMPLEFORMAT_UINT));
    std::vector<std::uint32_t> page(std::size_t{width} * height);
    for (std::uint32_t row = 0; row < height; ++row)
      TIFFReadScanline(tiff, page.data() + std::size_t{row} * width, row, 0);
    pages.push_back(std::move(page));
  } while (TIFFReadDirectory(tiff));
  TIFFClose(tiff);
  return pages;
}

TEST_F(InspectTest, SpectrumAndStacksAgreeWithAPlainComputation) {
  const TofCase c(true);
  write_bytes(dir.file("tof.kovraevent"), file_of(c.events, c.triggers));
  // Four bins of 275 ticks over [0, 1100), the longest interval; cells of 2 pixels over 6 pixels; 2 photons or more.
  ASSERT_EQ(run("tof.kovraevent --tof-bins 4 --spectrum - --stack-tiff s.tif --stack-hdf5 s.h5 --size 6 --binning 2 "
                "--photons-min 2"),
            0)
      << err;
  std::vector<std::uint64_t> spectrum(4, 0);
  std::vector<std::uint32_t> map(9, 0), perBin(4 * 9, 0);
  std::uint64_t before = 0, deselected = 0, beyond = 0, outside = 0;
  for (const E& e : c.events) {
    const auto tof = plain_tof(c.triggers, e.t);
    if (e.n < 2) {
      ++deselected;
      continue;
    }
    if (!tof) {
      ++before;
      continue;
    }
    if (*tof >= 1100) {
      ++beyond;
      continue;
    }
    ++spectrum[*tof / 275];
    if (e.x < 0 || e.x >= 6 * px || e.y >= 6 * px) {
      ++outside;
      continue;
    }
    const std::size_t cell = static_cast<std::size_t>(e.y / (2 * px) * 3 + e.x / (2 * px));
    ++map[cell];
    ++perBin[*tof / 275 * 9 + cell];
  }
  std::string csv = "bin,tof_lo,tof_hi,tof_lo_s,tof_hi_s,events\n";
  for (std::size_t i = 0; i < 4; ++i) {
    csv += std::to_string(i) + "," + std::to_string(275 * i) + "," + std::to_string(275 * (i + 1)) + "," +
           format_exact(static_cast<double>(275 * i) * 1.5625e-9) + "," +
           format_exact(static_cast<double>(275 * (i + 1)) * 1.5625e-9) + "," + std::to_string(spectrum[i]) + "\n";
  }
  EXPECT_EQ(out, csv);
  EXPECT_EQ(err, "kovra_inspect: time of flight: " + std::to_string(c.events.size() - before - deselected - beyond) +
                     " of " + std::to_string(c.events.size()) + " events counted, " + std::to_string(deselected) +
                     " left out by the selection, " + std::to_string(before) + " before the first trigger, " +
                     std::to_string(beyond) + " outside [0 s, 1.71875e-06 s), " + std::to_string(outside) +
                     " of those outside the stack's square\n");
  EXPECT_GT(before * beyond * outside, 0u);

  std::vector<std::uint32_t> pages, summed(9, 0);
  for (const auto& page : read_tiff(dir.file("s.tif"))) pages.insert(pages.end(), page.begin(), page.end());
  EXPECT_EQ(pages, perBin);
  const hid_t h5 = H5Fopen(dir.file("s.h5").c_str(), H5F_ACC_RDONLY, H5P_DEFAULT);
  EXPECT_EQ(read_h5<std::uint32_t>(h5, "stack", H5T_NATIVE_UINT32), perBin);
  EXPECT_EQ(read_h5<std::uint64_t>(h5, "tof_edges", H5T_NATIVE_UINT64),
            (std::vector<std::uint64_t>{0, 275, 550, 825, 1100}));
  H5Fclose(h5);
  // The stack summed over time of flight is the map of the same events.
  for (std::size_t i = 0; i < perBin.size(); ++i) summed[i % 9] += perBin[i];
  EXPECT_EQ(summed, map);
}

TEST_F(InspectTest, AWriteRefusedOnTheWayEndsWithItsReasonAndEveryFileAsItWas) {
  write_bytes(dir.file("tof.kovraevent"), file_of(TofCase(false).events, TofCase(false).triggers));
  // A full disk, played by a file-size limit whose signal is ignored, so that the write fails instead. 5 kB is
  // below every output here (the image 7 kB, the stack's HDF5 file 18 kB, the CSV 234 kB). The plot's data file
  // (under 20 kB at 16 pixels a side) fits in 40 kB and the figure (87 kB) does not, so the plotting script
  // meets the limit.
  const auto failed = [](const std::string& what) {
    return "kovra_inspect: tof.kovraevent: cannot write " + what + ": File too large\n";
  };
  const std::tuple<std::string, int, std::string> cases[] = {
      // options, limit in bytes, what is said
      {"--csv out.csv", 5000, failed("CSV file \"out.csv\"")},
      {"--hdf5 out.h5", 5000, failed("HDF5 file \"out.h5\"")},
      {"--image out.png --size 8 --binning 0.015625", 5000, failed("PNG file \"out.png\"")},
      {"--spectrum out.csv --tof-bins 1000", 5000, failed("CSV file \"out.csv\"")},
      {"--stack-hdf5 out.h5 --size 8 --binning 0.0625 --tof-bins 8", 5000, failed("HDF5 file \"out.h5\"")},
      {"--stack-tiff out.tif --size 8 --binning 0.0625 --tof-bins 8", 5000, failed("TIFF file \"out.tif\"")},
      {"--plot out.png --size 16", 40000, "/plot.png': File too large\n"},
  };
  for (const std::string name : {"out.csv", "out.h5", "out.png", "out.tif"}) {
    write_bytes(dir.file(name), "earlier " + name);
  }
  for (const auto& [options, limit, message] : cases) {
    const std::string limited = "--ignore-signal=XFSZ prlimit --fsize=" + std::to_string(limit) + " ";
    const Program_Outcome r = run_program(dir, "env", limited + KOVRA_INSPECT_PATH " tof.kovraevent " + options);
    EXPECT_EQ(r.status, 1) << options;
    EXPECT_THAT(r.err, ::testing::HasSubstr(message)) << options;
    const std::vector<std::string> names = get_names(dir);
    EXPECT_EQ(names, (std::vector<std::string>{"known.kovraevent", "out.csv", "out.h5", "out.png", "out.tif",
                                               "stderr.txt", "stdout.txt", "tof.kovraevent"}))
        << options;
    for (const std::string& name : names) {
      const std::string bytes = read_bytes(dir.file(name));
      EXPECT_TRUE(!name.starts_with("out.") || bytes == "earlier " + name)
          << options << ": " << name << " has " << bytes.size();
    }
  }
}

// Status 2 and one message, and no file read or written.
TEST_F(InspectTest, BadCommandLines) {
  const std::pair<std::string, std::string> cases[] = {
      {"", "no input file given"},
      // Images are PNG files, whatever the name says: a name that says otherwise is refused.
      {"e.kovraevent -i map.jpg", "option --image needs a file name ending in .png, not \"map.jpg\""},
      {"e.kovraevent --plot map.PNG", "option --plot needs a file name ending in .png, not \"map.PNG\""},
      {"e.kovraevent -s --csv -", "the summary and --csv - cannot share standard output"},
      {"e.kovraevent --spectrum - --csv -",
       "only one of the summary, --csv - and --spectrum - can go to standard output"},
      {"e.kovraevent --tof-bins 0", "option --tof-bins needs a whole number from 1 to 1000000, not \"0\""},
      {"e.kovraevent --tof-bins 2.5", "option --tof-bins needs a whole number from 1 to 1000000, not \"2.5\""},
      {"e.kovraevent --tof-min -1",
       "option --tof-min needs a number of seconds from 0 to 7205759403.792793, not \"-1\""},
      {"e.kovraevent --tof-min 2 --tof-max 1", "option --tof-max must be larger than --tof-min"},
      {"e.kovraevent --tof-log", "option --tof-log needs --tof-min above 0"},
      {"e.kovraevent --tof-max", "option --tof-max needs a value"},
      {"e.kovraevent --psd-min 2e-9 --psd-max 1e-9", "option --psd-max must not be smaller than --psd-min"},
      {"e.kovraevent --photons-min 3 --photons-max 2", "option --photons-max must not be smaller than --photons-min"},
      {"e.kovraevent --photons-min x", "option --photons-min needs a whole number, at least 0, not \"x\""},
      {"e.kovraevent --region 1,2,3", "option --region needs X0,Y0,X1,Y1 in pixels, not \"1,2,3\""},
      {"e.kovraevent --region 5,0,5,1", "option --region needs X0 < X1 and Y0 < Y1"},
      {"e.kovraevent --stack-memory 0",
       "option --stack-memory needs a whole number of MiB from 1 to 1073741824, not \"0\""},
      {"p.kovraphot --plot p.png", "option --plot needs an event file (.kovraevent)"},
      {"p.kovraphot --psd-max 1", "the selections by pulse-shape value and photon count need an event file"},
      // Hot pixels: of a raw file or a photon file, to a file or to standard output alone.
      {"r.tpx3", "a raw file (.tpx3) takes only --hot-pixels and --hot-factor"},
      {"r.tpx3 --hot-pixels - --summary", "a raw file (.tpx3) takes only --hot-pixels and --hot-factor"},
      {"e.kovraevent --hot-pixels -", "option --hot-pixels needs a raw file (.tpx3) or a photon file (.kovraphot)"},
      {"r.tpx3 --hot-pixels - --hot-factor 1",
       "option --hot-factor needs a number greater than 1 and at most 1000000000000, not \"1\""},
      {"p.kovraphot --hot-pixels - --csv -",
       "--hot-pixels - cannot share standard output with the summary, --csv - or --spectrum -"},
  };
  for (const auto& [arguments, message] : cases) {
    EXPECT_EQ(std::tuple(run(arguments), err),
              std::tuple(2, "kovra_inspect: " + message + "\nTry 'kovra_inspect --help'.\n"))
        << arguments;
  }
  EXPECT_EQ(get_names(dir), (std::vector<std::string>{"known.kovraevent", "stderr.txt", "stdout.txt"}));
}

}  // namespace

// SPDX-License-Identifier: MIT
// Tests of the media attribute block: the reader, the writer rule, the record's constructor.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "fileparams.h"
#include "media_attributes.h"

namespace {

using Map = std::map<std::string, std::string>;

zev::media::MediaAttributes blockOf(const std::string& text) {
  zev::media::MediaAttributes attributes;
  std::memset(attributes.block, 0, sizeof(attributes.block));
  std::memcpy(attributes.block, text.data(), std::min(text.size(), sizeof(attributes.block)));
  return attributes;
}

Map parse(const std::string& text) { return blockOf(text).getAttributesMap(); }

// getAttribute's answer for key (nothing when it gives false), checked
// against what getAttributesMap holds for the key; a value not found is
// left as it was.
std::optional<std::string> lookup(zev::media::MediaAttributes& attributes, const std::string& key) {
  std::string value = "as it was";
  const bool found = attributes.getAttribute(key, value);
  const Map map = attributes.getAttributesMap();
  const auto it = map.find(key);
  EXPECT_EQ(found, it != map.end()) << "key '" << key << "'";
  if (!found) {
    EXPECT_EQ(value, "as it was") << "key '" << key << "'";
    return std::nullopt;
  }
  if (it != map.end()) {
    EXPECT_EQ(value, it->second) << "key '" << key << "'";
  }
  return value;
}

std::optional<std::string> lookup(const std::string& text, const std::string& key) {
  zev::media::MediaAttributes attributes = blockOf(text);
  return lookup(attributes, key);
}

using Found = std::optional<std::string>;

std::string blockText(const CFileParams& params) {
  return std::string(params.attributes.block,
                     strnlen(params.attributes.block, sizeof(params.attributes.block)));
}

TEST(AttributeKeys, HaveTheirTexts) {
  EXPECT_EQ(zev::media::MediaFormat, "Format");
  EXPECT_EQ(zev::media::MediaHeight, "Height");
  EXPECT_EQ(zev::media::MediaWidth, "Width");
  EXPECT_EQ(zev::media::MediaFrameRate, "Frame Rate");
  EXPECT_EQ(zev::media::MediaVideoEncodeType, "Encode Type");
  EXPECT_EQ(zev::media::MediaAudioChannels, "Audio Chan");
  EXPECT_EQ(zev::media::MediaStartingTimecode, "Starting TC");
}

TEST(AttributesMap, EmptyBlockGivesEmptyMap) { EXPECT_TRUE(parse("").empty()); }

TEST(AttributesMap, ReadsPairsWithOrWithoutTheFinalNewline) {
  const Map expected{{"Format", "1920x1080p25"}, {"Encode Type", "1"}};
  EXPECT_EQ(parse("Format\n1920x1080p25\nEncode Type\n1\n"), expected);
  EXPECT_EQ(parse("Format\n1920x1080p25\nEncode Type\n1"), expected);
}

TEST(AttributesMap, AnEmptyValueVanishesAndTheNextTokenBecomesTheValue) {
  EXPECT_EQ(parse("Format\n\nEncode Type\n1\n"), (Map{{"Format", "Encode Type"}}));
}

TEST(AttributesMap, NothingIsTrimmed) {
  EXPECT_EQ(parse("Format\r\n 25p \r\n"), (Map{{"Format\r", " 25p \r"}}));
}

TEST(AttributesMap, ARepeatedKeyKeepsItsLastValue) {
  EXPECT_EQ(parse("A\n1\nB\n2\nA\n3\n"), (Map{{"A", "3"}, {"B", "2"}}));
}

TEST(AttributesMap, ReadsABlockWithoutTerminatorUpToItsEnd) {
  zev::media::MediaAttributes attributes;
  // 600 pairs "k\nv\n" fill all 2400 bytes, no terminator anywhere.
  for (std::size_t i = 0; i < sizeof(attributes.block); i += 4)
    std::memcpy(attributes.block + i, "k\nv\n", 4);
  EXPECT_EQ(attributes.getAttributesMap(), (Map{{"k", "v"}}));
}

// A single key is looked up by the map's rules, without the map.
TEST(AttributeLookup, FindsEachKeyOfTheBlock) {
  const std::string text = "Format\n1920x1080p25\nEncode Type\n1\nAudio Chan\n4\nStarting TC\n01:00:00:00\n";
  EXPECT_EQ(lookup(text, "Format"), Found("1920x1080p25"));
  EXPECT_EQ(lookup(text, "Encode Type"), Found("1"));
  EXPECT_EQ(lookup(text, "Audio Chan"), Found("4"));
  EXPECT_EQ(lookup(text, "Starting TC"), Found("01:00:00:00"));
}

// A key the block does not hold gives false and leaves the value alone.
TEST(AttributeLookup, AMissingKeyIsNotFound) {
  EXPECT_EQ(lookup("Format\n1920x1080p25\n", "Audio Chan"), std::nullopt);
  EXPECT_EQ(lookup("", "Format"), std::nullopt);
  EXPECT_EQ(lookup("Format\n1920x1080p25\n", "Form"), std::nullopt);  // whole tokens only
  EXPECT_EQ(lookup("Format\n1920x1080p25\n", ""), std::nullopt);
}

// Of a key written twice, the last value counts, as in the map.
TEST(AttributeLookup, ARepeatedKeyGivesItsLastValue) {
  EXPECT_EQ(lookup("A\n1\nB\n2\nA\n3\n", "A"), Found("3"));
  EXPECT_EQ(lookup("A\n1\nB\n2\nA\n3\n", "B"), Found("2"));
}

// A token in the place of a value is no key, even when its text is one.
TEST(AttributeLookup, AKeyWrittenAsAValueIsNotFound) {
  EXPECT_EQ(lookup("A\nB\n", "B"), std::nullopt);
  EXPECT_EQ(lookup("A\nB\nB\nC\n", "B"), Found("C"));
  EXPECT_EQ(lookup("A\nB\nB\nC\n", "C"), std::nullopt);
}

// A final key without a value is ignored, with or without its newline.
TEST(AttributeLookup, AKeyWithoutAValueAtTheEndIsNotFound) {
  EXPECT_EQ(lookup("A\n1\nB\n", "B"), std::nullopt);
  EXPECT_EQ(lookup("A\n1\nB", "B"), std::nullopt);
  EXPECT_EQ(lookup("A\n1\nB", "A"), Found("1"));
  EXPECT_EQ(lookup("A\n1\nA\n", "A"), Found("1"));  // the dangling repeat changes nothing
}

// A block filled to its 2400th byte with no terminator is read to that
// byte and not beyond: the last pair's value ends there.
TEST(AttributeLookup, ReadsABlockWithoutTerminatorUpToItsEnd) {
  auto attributes = std::make_unique<zev::media::MediaAttributes>();
  for (std::size_t i = 0; i < sizeof(attributes->block); i += 4)
    std::memcpy(attributes->block + i, "k\nv\n", 4);
  std::memcpy(attributes->block + sizeof(attributes->block) - 4, "k\nwx", 4);
  EXPECT_EQ(lookup(*attributes, "k"), Found("wx"));
  EXPECT_EQ(lookup(*attributes, "v"), std::nullopt);
}

// Empty tokens are dropped, so no key has an empty value: the token after
// an empty one becomes the value, and the empty key is never found.
TEST(AttributeLookup, NoKeyHasAnEmptyValue) {
  const std::string text = "Format\n\nEncode Type\n1\n";
  EXPECT_EQ(lookup(text, "Format"), Found("Encode Type"));
  EXPECT_EQ(lookup(text, "Encode Type"), std::nullopt);
  EXPECT_EQ(lookup(text, "1"), std::nullopt);
  EXPECT_EQ(lookup("\n\nA\n\n\n1\n", "A"), Found("1"));
  EXPECT_EQ(lookup("\n\nA\n\n\n1\n", ""), std::nullopt);
}

TEST(AttributesWriter, AppendsPairsInOrder) {
  CFileParams params("clip.mov");
  EXPECT_TRUE(params.AddAttribute("Format", "1920x1080i29.97"));
  EXPECT_TRUE(params.AddAttribute("Encode Type", "1"));
  EXPECT_TRUE(params.AddAttribute("Audio Chan", "4"));
  EXPECT_TRUE(params.AddAttribute("Starting TC", "01:00:00;00"));
  EXPECT_EQ(blockText(params),
            "Format\n1920x1080i29.97\nEncode Type\n1\nAudio Chan\n4\nStarting TC\n01:00:00;00\n");
  EXPECT_EQ(params.attributes.getAttributesMap(), (Map{{"Format", "1920x1080i29.97"},
                                                       {"Encode Type", "1"},
                                                       {"Audio Chan", "4"},
                                                       {"Starting TC", "01:00:00;00"}}));
}

TEST(AttributesWriter, SkipsAKeyWhoseTextIsAlreadyAnywhereInTheBlock) {
  CFileParams params("clip.mov");
  EXPECT_TRUE(params.AddAttribute("Note", "see Format"));
  EXPECT_FALSE(params.AddAttribute("Format", "1920x1080p25"));  // found inside the earlier value
  EXPECT_FALSE(params.AddAttribute("Note", "again"));
  EXPECT_EQ(blockText(params), "Note\nsee Format\n");
}

TEST(AttributesWriter, AFullBlockOf2399CharactersTakesNoFurtherPair) {
  CFileParams params("clip.mov");
  // "K\n" + 2396 x's + "\n" = 2399 characters.
  EXPECT_TRUE(params.AddAttribute("K", std::string(2396, 'x')));
  EXPECT_EQ(blockText(params).size(), 2399u);
  EXPECT_FALSE(params.AddAttribute("a", ""));
  EXPECT_EQ(blockText(params).size(), 2399u);
  EXPECT_EQ(params.attributes.block[2399], '\0');
}

TEST(AttributesWriter, DropsAPairThatWouldReach2400ButTakesAShorterOne) {
  CFileParams params("clip.mov");
  EXPECT_TRUE(params.AddAttribute("K", std::string(2387, 'x')));  // 2390 characters
  ASSERT_EQ(blockText(params).size(), 2390u);
  EXPECT_FALSE(params.AddAttribute("Long", "abcd"));  // piece of 10: 2400
  EXPECT_TRUE(params.AddAttribute("Ok", "abcde"));    // piece of 9: 2399
  EXPECT_EQ(blockText(params).size(), 2399u);
  EXPECT_EQ(params.attributes.getAttributesMap().at("Ok"), "abcde");
}

TEST(FileParamsRecord, ConstructorKeepsThePathAndClearsTheBlock) {
  std::unique_ptr<CFileParams> params(new CFileParams("/media/ZEV/A001.mov"));
  EXPECT_EQ(params->fileName, "/media/ZEV/A001.mov");
  for (char c : params->attributes.block) ASSERT_EQ(c, '\0');
  EXPECT_FALSE(params->FileIsValid());
  EXPECT_EQ(params->width, 0);
  EXPECT_EQ(params->height, 0);
  EXPECT_EQ(params->videoLength, 0u);
  EXPECT_EQ(params->frameRate, 0.0);
  EXPECT_EQ(params->scanMode, 0);
  for (char c : params->fourCC) EXPECT_EQ(c, '\0');
  // A null path is an empty one.
  EXPECT_EQ(CFileParams(nullptr).fileName, "");
}

TEST(FileParamsRecord, IsDeletedThroughItsVirtualDestructor) {
  struct Derived : CFileParams {
    explicit Derived(bool* flag) : CFileParams("x.mov"), destroyed(flag) {}
    ~Derived() override { *destroyed = true; }
    bool FileIsValid() override { return true; }
    bool* destroyed;
  };
  bool destroyed = false;
  CFileParams* params = new Derived(&destroyed);
  EXPECT_TRUE(params->FileIsValid());
  delete params;
  EXPECT_TRUE(destroyed);
}

TEST(IsWithinEpsilon, BoundIsInclusiveAndSymmetric) {
  CFileParams params("x.mov");
  EXPECT_TRUE(params.IsWithinEpsilon(0.005, 0.0));
  EXPECT_TRUE(params.IsWithinEpsilon(0.0, 0.005));
  EXPECT_FALSE(params.IsWithinEpsilon(29.97, 30.0));
  EXPECT_FALSE(params.IsWithinEpsilon(30.0, 29.97));
  EXPECT_TRUE(params.IsWithinEpsilon(29.995, 30.0));
  EXPECT_TRUE(params.IsWithinEpsilon(30.0, 29.995));
  EXPECT_TRUE(params.IsWithinEpsilon(25.0, 25.0));
  EXPECT_FALSE(params.IsWithinEpsilon(0.0051, 0.0));
}

TEST(IsWithinEpsilon, NaNIsNeverWithin) {
  CFileParams params("x.mov");
  const double nan = std::numeric_limits<double>::quiet_NaN();
  EXPECT_FALSE(params.IsWithinEpsilon(nan, 25.0));
  EXPECT_FALSE(params.IsWithinEpsilon(25.0, nan));
  EXPECT_FALSE(params.IsWithinEpsilon(nan, nan));
}

}  // namespace

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "platform/foundation/NSPropertyListSerialization.h"

namespace {

Data bytesOf(const std::string& text) { return Data(text.begin(), text.end()); }

// A binary property list with a hand-made object table: each object is its
// raw encoding; references are 4 bytes wide. Lets tests build shapes no
// writer would produce (cycles, deep chains, shared subtrees).
Data binaryPlist(const std::vector<Data>& objects, std::uint64_t top = 0) {
  Data out = bytesOf("bplist00");
  std::vector<std::uint64_t> offsets;
  for (const Data& object : objects) {
    offsets.push_back(out.size());
    out.insert(out.end(), object.begin(), object.end());
  }
  std::uint64_t table = out.size();
  auto putBE = [&](std::uint64_t v, int width) {
    for (int i = width - 1; i >= 0; --i) out.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
  };
  for (std::uint64_t offset : offsets) putBE(offset, 8);
  out.insert(out.end(), 6, 0);
  out.push_back(8);  // offset size
  out.push_back(4);  // reference size
  putBE(objects.size(), 8);
  putBE(top, 8);
  putBE(table, 8);
  return out;
}

// An array object (count < 15) referring to the given objects.
Data arrayObject(const std::vector<std::uint32_t>& refs) {
  Data object{static_cast<std::uint8_t>(0xA0 | refs.size())};
  for (std::uint32_t ref : refs) {
    for (int i = 3; i >= 0; --i) object.push_back(static_cast<std::uint8_t>(ref >> (8 * i)));
  }
  return object;
}

void expectReadCorrupt(const Data& data, const std::string& what) {
  NSErrorPtr error;
  Value value = NSPropertyListSerialization::propertyListWithData(data, nullptr, &error);
  EXPECT_TRUE(value.isAbsent()) << what;
  ASSERT_TRUE(error) << what;
  EXPECT_EQ(error->domain(), NSCocoaErrorDomain) << what;
  EXPECT_EQ(error->code(), NSPropertyListReadCorruptError) << what;
}

Value sample() {
  Data bytes{0, 1, 2, 0xFF, 0, 0x80};
  return Value(Dictionary{
      {"text", "h\u00e9llo \U0001F600 <&>\"' ]]> done"},
      {"empty", ""},
      {"yes", true},
      {"no", false},
      {"zero", 0},
      {"minusOne", -1},
      {"min", std::numeric_limits<std::int64_t>::min()},
      {"max", std::numeric_limits<std::int64_t>::max()},
      {"pi", 3.141592653589793},
      {"tiny", 1e-300},
      {"huge", -1.5e300},
      {"data", Value(bytes)},
      {"noData", Value(Data())},
      {"list", Value(Array{1, "two", Value(Array{}), Value(Dictionary{}), Value(Array{Value(Array{3.5})})})},
      {"nested", Value(Dictionary{{"k\u00fc", Value(Dictionary{{"deeper", Value(Array{true, "x"})}})}})},
  });
}

}  // namespace

TEST(PropertyList, RoundTripsEveryTypeInBothFormats) {
  for (auto format : {NSPropertyListFormat::XML_v1_0, NSPropertyListFormat::Binary_v1_0}) {
    SCOPED_TRACE(static_cast<int>(format));
    NSErrorPtr error;
    Data data = NSPropertyListSerialization::dataWithPropertyList(sample(), format, &error);
    ASSERT_FALSE(data.empty()) << (error ? error->description() : "");
    NSPropertyListFormat detected{};
    Value back = NSPropertyListSerialization::propertyListWithData(data, &detected, &error);
    ASSERT_TRUE(back.isDictionary()) << (error ? error->description() : "");
    EXPECT_EQ(detected, format);
    EXPECT_EQ(back, sample()) << back.description();
    // Numbers keep their kind: a Boolean does not come back as 1, nor 1.0 as 1.
    EXPECT_TRUE(back.asDictionary()["yes"].isBool());
    EXPECT_TRUE(back.asDictionary()["zero"].isInteger());
    EXPECT_TRUE(back.asDictionary()["pi"].isDouble());
    EXPECT_EQ(back.asDictionary()["min"].integerValue(), std::numeric_limits<std::int64_t>::min());
  }
  // A bare scalar root and special reals.
  for (Value root : {Value("just a string"), Value(std::numeric_limits<double>::infinity()), Value(-0.0)}) {
    Data data = NSPropertyListSerialization::dataWithPropertyList(root, NSPropertyListFormat::XML_v1_0);
    EXPECT_EQ(NSPropertyListSerialization::propertyListWithData(data), root) << root.description();
  }
  Data nan = NSPropertyListSerialization::dataWithPropertyList(Value(std::nan("")), NSPropertyListFormat::Binary_v1_0);
  EXPECT_TRUE(std::isnan(NSPropertyListSerialization::propertyListWithData(nan).doubleValue()));
}

TEST(PropertyList, DatesKeepSecondsInXMLAndMicrosecondsInBinaryOnBothSidesOfTheReferenceDate) {
  for (double t : {0.0, 599529600.0, -86400.0 * 365 * 30, 2000000000.0, 12.25, 599529600.5, -12345.75, -1.25}) {
    SCOPED_TRACE(t);
    Value date{NSDate(t)};
    Data binary = NSPropertyListSerialization::dataWithPropertyList(date, NSPropertyListFormat::Binary_v1_0);
    Value fromBinary = NSPropertyListSerialization::propertyListWithData(binary);
    ASSERT_TRUE(fromBinary.isDate());
    EXPECT_NEAR(fromBinary.asDate().timeIntervalSinceReferenceDate(), t, 2e-6);

    Data xml = NSPropertyListSerialization::dataWithPropertyList(date, NSPropertyListFormat::XML_v1_0);
    Value fromXML = NSPropertyListSerialization::propertyListWithData(xml);
    ASSERT_TRUE(fromXML.isDate());
    EXPECT_NEAR(fromXML.asDate().timeIntervalSinceReferenceDate(), t, 1.0);
    if (t == std::floor(t)) {
      EXPECT_EQ(fromXML.asDate().timeIntervalSinceReferenceDate(), t);
    }
  }
}

TEST(PropertyList, ReadsHandWrittenXML) {
  const char* text = R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<!-- written by hand; it's a test -->
<plist version="1.0">
<dict>
  <key>when</key><date>2020-01-01T00:00:00Z</date>
  <key>count</key><integer>-5</integer>
  <key>ratio</key><real>0.5</real>
  <key>on</key><true/>
  <key>blob</key><data>AAEC/w==</data>
  <key>escaped</key><string>a &amp; b &lt; c</string>
  <key>items</key><array><string>x</string><array/><dict/></array>
</dict>
</plist>
)";
  NSErrorPtr error;
  Value value = NSPropertyListSerialization::propertyListWithData(bytesOf(text), nullptr, &error);
  ASSERT_TRUE(value.isDictionary()) << (error ? error->description() : "");
  const Dictionary& d = value.asDictionary();
  EXPECT_EQ(d["when"].asDate().timeIntervalSinceReferenceDate(), 599529600.0);
  EXPECT_EQ(d["count"], Value(-5));
  EXPECT_EQ(d["ratio"], Value(0.5));
  EXPECT_EQ(d["on"], Value(true));
  EXPECT_EQ(d["blob"], Value(Data{0, 1, 2, 0xFF}));
  EXPECT_EQ(d["escaped"], Value("a & b < c"));
  EXPECT_EQ(d["items"], Value(Array{"x", Value(Array{}), Value(Dictionary{})}));
}

TEST(PropertyList, RefusesToWriteWhatAPropertyListCannotHold) {
  std::vector<std::pair<std::string, Value>> invalid = {
      {"absent", Value()},
      {"null marker", Value::null()},
      {"set", Value(Set{1, 2})},
      {"null inside an array", Value(Array{1, Value::null()})},
      {"set inside a dictionary", Value(Dictionary{{"k", Value(Set{})}})},
      {"invalid UTF-8", Value(std::string("ab\xff"))},
      {"embedded NUL", Value(std::string("a\0b", 3))},
      {"invalid key", Value(Dictionary{{std::string("\xc3"), 1}})},
      {"date beyond 2069", Value(NSDate(4e9))},
      {"infinite date", Value(NSDate(std::numeric_limits<double>::infinity()))},
  };
  Value deep = Value(Array{});
  for (std::size_t i = 0; i < ZBPropertyListMaxDepth + 1; ++i) deep = Value(Array{deep});
  invalid.emplace_back("too deep", deep);
  for (const auto& [what, value] : invalid) {
    for (auto format : {NSPropertyListFormat::XML_v1_0, NSPropertyListFormat::Binary_v1_0}) {
      NSErrorPtr error;
      EXPECT_TRUE(NSPropertyListSerialization::dataWithPropertyList(value, format, &error).empty()) << what;
      ASSERT_TRUE(error) << what;
      EXPECT_EQ(error->code(), NSPropertyListWriteInvalidError) << what;
      EXPECT_FALSE(NSPropertyListSerialization::propertyListIsValid(value)) << what;
    }
  }
}

TEST(PropertyList, ArchiveReferencesSurviveARoundTrip) {
  Value plist(Dictionary{{"ref", Value(Dictionary{{"CF$UID", 7}})}, {"notRef", Value(Dictionary{{"CF$UID", "x"}})}});
  for (auto format : {NSPropertyListFormat::XML_v1_0, NSPropertyListFormat::Binary_v1_0}) {
    Data data = NSPropertyListSerialization::dataWithPropertyList(plist, format);
    EXPECT_EQ(NSPropertyListSerialization::propertyListWithData(data), plist);
  }
}

TEST(PropertyList, RefusesDamagedInputWithAClearError) {
  expectReadCorrupt({}, "empty");
  expectReadCorrupt(bytesOf("not a plist at all"), "text");
  expectReadCorrupt(bytesOf("<plist><string>\xff\xfe</string></plist>"), "invalid UTF-8 in XML");
  expectReadCorrupt(bytesOf("<plist><dict><key>a</key></plist>"), "unbalanced XML");
  expectReadCorrupt(bytesOf("bplist00"), "bare binary header");

  // Every truncation of a valid list fails (XML: every cut inside the root
  // element; a missing </plist> alone is tolerated).
  for (auto format : {NSPropertyListFormat::XML_v1_0, NSPropertyListFormat::Binary_v1_0}) {
    Data whole = NSPropertyListSerialization::dataWithPropertyList(sample(), format);
    std::string text(whole.begin(), whole.end());
    std::size_t mustFail = format == NSPropertyListFormat::XML_v1_0 ? text.rfind("</dict>") + 7 : whole.size();
    for (std::size_t cut = 0; cut < mustFail; ++cut)
      expectReadCorrupt(Data(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(cut)),
                        "truncated to " + std::to_string(cut));
  }

  // Random bytes, with and without a binary header: an error or a value, never a crash.
  std::mt19937 random(42);
  for (int round = 0; round < 2000; ++round) {
    Data noise(random() % 200);
    for (auto& byte : noise) byte = static_cast<std::uint8_t>(random());
    if (round % 2) noise.insert(noise.begin(), {'b', 'p', 'l', 'i', 's', 't', '0', '0'});
    NSErrorPtr error;
    Value value = NSPropertyListSerialization::propertyListWithData(noise, nullptr, &error);
    EXPECT_EQ(value.isAbsent(), error != nullptr);
  }
}

TEST(PropertyList, RefusesHostileShapesWithoutExhaustingTheStack) {
  // Nesting far beyond what any stack holds: libplist alone would recurse
  // (and free partial trees recursively) until it crashed.
  const int levels = 200000;
  std::string closed, unclosed;
  for (int i = 0; i < levels; ++i) unclosed += "<array>";
  closed = "<plist>" + unclosed;
  for (int i = 0; i < levels; ++i) closed += "</array>";
  closed += "</plist>";
  expectReadCorrupt(bytesOf(closed), "deep XML");
  expectReadCorrupt(bytesOf("<plist>" + unclosed), "deep unclosed XML");
  // Closing tags hidden in places a tokenizer might skip must not hide depth.
  std::string disguised = "<plist>";
  for (int i = 0; i < levels / 10; ++i) disguised += "<array a=\"</array>\"><!-- </array> -->";
  expectReadCorrupt(bytesOf(disguised), "deep XML with disguised closing tags");

  std::vector<Data> chain;
  for (int i = 0; i < levels; ++i) chain.push_back(i + 1 < levels ? arrayObject({std::uint32_t(i + 1)}) : arrayObject({}));
  expectReadCorrupt(binaryPlist(chain), "deep binary chain");
  expectReadCorrupt(binaryPlist({arrayObject({0})}), "array containing itself");
  expectReadCorrupt(binaryPlist({arrayObject({1}), arrayObject({0})}), "two-array cycle");
  expectReadCorrupt(binaryPlist({arrayObject({5})}), "reference out of range");
  expectReadCorrupt(binaryPlist({arrayObject({})}, 3), "top object out of range");
  // Keys holding NUL (libplist aborts on them) and keys that are not strings.
  Data dictOneEntry{0xD1, 0, 0, 0, 1, 0, 0, 0, 2};
  expectReadCorrupt(binaryPlist({dictOneEntry, Data{0x52, 'a', 0}, Data{0x09}}), "ASCII key with NUL");
  expectReadCorrupt(binaryPlist({dictOneEntry, Data{0x62, 0, 'a', 0, 0}, Data{0x09}}), "UTF-16 key with NUL");
  expectReadCorrupt(binaryPlist({dictOneEntry, Data{0x10, 5}, Data{0x09}}), "integer key");
  EXPECT_EQ(NSPropertyListSerialization::propertyListWithData(
                binaryPlist({dictOneEntry, Data{0x62, 0, 'a', 0, 'b'}, Data{0x09}})),
            Value(Dictionary{{"ab", true}}));
  expectReadCorrupt(bytesOf(std::string("<plist><dict><key>a\0b</key><true/></dict></plist>", 49)), "XML NUL");

  // Each level refers to the next twice: 60 levels would expand to 2^60 copies.
  std::vector<Data> doubling;
  for (std::uint32_t i = 0; i < 60; ++i) doubling.push_back(arrayObject({i + 1, i + 1}));
  doubling.push_back(Data{0x09});  // true
  expectReadCorrupt(binaryPlist(doubling), "exponential sharing");

  // Moderate sharing is fine and reads as the expanded tree.
  Value shared = NSPropertyListSerialization::propertyListWithData(
      binaryPlist({arrayObject({1, 1, 1}), arrayObject({2, 2}), Data{0x09}}));
  Value leaf(Array{true, true});
  EXPECT_EQ(shared, Value(Array{leaf, leaf, leaf}));

  // Nesting up to the limit is accepted.
  std::string ok = "<plist>";
  for (std::size_t i = 0; i < ZBPropertyListMaxDepth; ++i) ok += "<array>";
  for (std::size_t i = 0; i < ZBPropertyListMaxDepth; ++i) ok += "</array>";
  ok += "</plist>";
  EXPECT_TRUE(NSPropertyListSerialization::propertyListWithData(bytesOf(ok)).isArray());
}

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include "import/NetscapeBookmarkTestSupport.h"
#include "import/impl/ZBNetscapeBookmarkText.h"

namespace {

using Reason = ZBTarrowNetscapeBookmarkSummary::Reason;

const std::string kHead =
    "<!DOCTYPE NETSCAPE-Bookmark-file-1>\n<!-- This is an automatically generated file. -->\n"
    "<META HTTP-EQUIV=\"Content-Type\" CONTENT=\"text/html; charset=UTF-8\">\n"
    "<TITLE>Bookmarks</TITLE>\n<H1>Bookmarks</H1>\n";

struct Shape {
  const char* name;
  std::string html;
  const char* tree;
  std::size_t links;                // <a href> in the file
  std::vector<Reason> leftOut = {};  // in document order
};

}  // namespace

TEST(NetscapeBookmarkParsing, ExportShapesGiveTheirTreeFieldByField) {
  const Shape shapes[] = {
      {"Chromium: nested folders, extra attributes",
       kHead + "<DL><p>\n    <DT><H3 ADD_DATE=\"1\" LAST_MODIFIED=\"2\" PERSONAL_TOOLBAR_FOLDER=\"true\">Bar</H3>\n"
               "    <DL><p>\n        <DT><A HREF=\"https://a.example/\" ADD_DATE=\"3\" ICON=\"data:image/png;base64,AA\">A</A>\n"
               "        <DT><H3>Sub</H3>\n        <DL><p>\n            <DT><A HREF=\"https://b.example/\">B</A>\n"
               "        </DL><p>\n    </DL><p>\n    <DT><A HREF=\"https://c.example/\">C</A>\n</DL><p>\n",
       R"(F""{F"Bar"{I"A"<https://a.example/> F"Sub"{I"B"<https://b.example/>}} I"C"<https://c.example/>})", 3},
      {"Firefox: described folders and items, an empty description, an empty folder",
       kHead + "<DL><p>\n<DT><H3>Comics</H3>\n<DD>Fun stuff\n<DL><p>\n<DT><A HREF=\"u1\" TAGS=\"x\">one</A>\n"
               "<DD>first note\n<DT><A HREF=\"u2\">two</A>\n</DL><p>\n<DT><A HREF=\"u3\">three</A>\n<DD>\n"
               "<DT><H3>Empty</H3>\n<DL><p>\n</DL><p>\n</DL>\n",
       R"(F""{F"Comics"(Fun stuff\n){I"one"<u1>(first note\n) I"two"<u2>} I"three"<u3> F"Empty"})", 3},
      {"Internet Explorer: FOLDED headings, a byte-order mark, no META",
       "\xEF\xBB\xBF<!DOCTYPE NETSCAPE-Bookmark-file-1>\r\n<TITLE>Bookmarks</TITLE>\r\n<H1>Bookmarks</H1>\r\n"
       "<DL><p>\r\n<DT><H3 FOLDED ADD_DATE=\"1\">Links</H3>\r\n<DL><p>\r\n<DT><A HREF=\"http://x/\">Caf\xC3\xA9</A>\r\n"
       "</DL><p>\r\n</DL><p>\r\n",
       R"(F""{F"Links"{I"Café"<http://x/>}})", 1},
      {"Safari: no top-level list",
       "<!DOCTYPE NETSCAPE-Bookmark-file-1>\n\t<HTML>\n\t<Title>Signets</Title>\n\t<H1>Signets</H1>\n"
       "\t<DT><H3 FOLDED>Favoris</H3>\n\t<DL><p>\n\t\t<DT><A HREF=\"g\">G</A>\n\t</DL><p>\n"
       "\t<DT><H3 FOLDED>Autre</H3>\n\t<DL><p>\n\t\t<DT><H3 FOLDED>doc</H3>\n\t\t<DL><p>\n\t\t\t<DT><A HREF=\"w\">W</A>\n"
       "\t\t</DL><p>\n\t</DL><p>\n</HTML>\n",
       R"(F""{F"Favoris"{I"G"<g>} F"Autre"{F"doc"{I"W"<w>}}})", 2},
      {"Delicious: lower case, raw markup in a title and a note, a link in a note",
       kHead + "<DL><p>\n<dt><a href=\"u1\" ADD_DATE=\"1\" PRIVATE=\"1\" TAGS=\"a,b\">Draw <canvas> here</a>\n"
               "<dd>Text\n<li>#KEY ---> #VALUE</li>\n</BOUCLE_x>\n</code> see <a href=\"in-note\">this</a>\n"
               "<dt><a href=\"u2\">After <event>the</event> markup</a>\n<DD><li>starts with markup</li>\n"
               "<dt><a href=\"u3\">Third</a>\n</DL><p>",
       R"(F""{I"Draw  here"<u1>(Text\n) I"After the markup"<u2> I"Third"<u3>})", 4, {Reason::LinkInNote}},
      {"Shaarli: entries with no list at all, a thumbnail link in a note",
       kHead + "<DT><A HREF=\"s1\" PRIVATE=\"1\">One</A>\n<DD>note <a href=\"thumb\"><img src=\"t.jpg\"/></a>\n"
               "<DT><A HREF=\"s2\">Two</A>\n",
       R"(F""{I"One"<s1>(note ) I"Two"<s2>})", 3, {Reason::LinkInNote}},
      {"Netscape 4: a description of the whole file before the top list",
       "<!DOCTYPE NETSCAPE-Bookmark-file-1>\n<TITLE>B</TITLE>\n<H1>B</H1>\n<DD>About this file\n<DL><p>\n"
       "    <DT><H3 FOLDED>Radio</H3>\n<DD>Public radio.\n\nMore.\n    <DL><p>\n        <DT><A HREF=\"r1\">R1</A>\n"
       "\t<DD>Best show.\n    </DL><p>\n    <DT><A HREF=\"r2\">R2</A>\n</DL><p>\n",
       R"(F""{F"Radio"(Public radio.\n\nMore.\n    ){I"R1"<r1>(Best show.\n    )} I"R2"<r2>})", 2},
      {"Pinboard: entries on one line with the list, TOREAD, closing </p>",
       kHead + "<DL><p><DT><A HREF=\"p1\" TOREAD=\"1\" TAGS=\"c,c++\">P1</A>\n\n<DT><A HREF=\"p2\">P2</A>\n"
               "<DD>Two.\n</DL></p>\n",
       R"(F""{I"P1"<p1> I"P2"<p2>(Two.\n)})", 2},
      {"Missing closers, stray <p> and <HR>, a list without heading",
       kHead + "<DL><p><HR><p>\n<DT><A HREF=\"m1\">M1</A><p>\n<DL><p><DT><A HREF=\"m2\">M2</A></DL>\n"
               "<DT><H3>Open</H3>\n<DL><p>\n<DT><A HREF=\"m3\">M3\n",
       R"(F""{I"M1"<m1> I"M2"<m2> F"Open"{I"M3"<m3>}})", 3},
      {"Titles and addresses are cleaned, entities decoded, descriptions are not",
       kHead + "<DL><p><DT><A HREF=\" \thttp://e/?a=1&amp;b=2\r\n\">  Line\r\nbreak&nbsp;&amp;\xE2\x80\x8B tab\t</A>\n"
               "<DD>  kept \r\n as is  \n</DL>",
       "F\"\"{I\"Line  break\xC2\xA0&  tab\"<http://e/?a=1&b=2>(  kept \\r\\n as is  \\n)}", 1},
      {"Links without an address, empty address, empty title, a second link, a heading as root title",
       "<H3>My links</H3>\n<DL><p><DT><A NAME=\"x\">no href</A>\n<DT><A HREF=\"\">empty href</A>\n"
       "<DT><A HREF=\"t\"></A>\n<DT><A HREF=\"first\">F</A> <A HREF=\"second\">S</A>\n<A HREF=\"loose\">L</A>\n</DL>",
       R"(F"My links"{I"empty href"<> I""<t> I"F"<first>})", 5,
       {Reason::LinkWithoutAddress, Reason::ExtraLinkInEntry, Reason::ExtraLinkInEntry}},
      {"Old Mac files: CR line ends only",
       "<TITLE>B</TITLE>\r<DL><p>\r<DT><H3>F</H3>\r<DL><p>\r<DT><A HREF=\"c\">C\rD</A>\r<DD>note\r</DL><p>\r</DL>\r",
       R"(F""{F"F"{I"C D"<c>(note\r)}})", 1},
      {"A file in the tidied shape already",
       "<html><body><dl><dd><h3>Folder</h3><dl><dt><a href=\"t1\">T1</a></dt></dl></dd>"
       "<dt><a href=\"t2\">T2</a></dt><dd>desc</dd></dl></body></html>",
       R"(F""{F"Folder"{I"T1"<t1>} I"T2"<t2>(desc)})", 2},
      {"Unknown one-letter elements", "<DL><d><DT><A HREF=\"u\">x<d>y</d></A></DL>", R"(F""{I"xy"<u>})", 1},
      {"No body: an empty untitled folder", "<html><head><title>x</title></head></html>", "Fnil", 0},
      {"Not HTML at all: an empty root", "just some text, no markup\n", R"(F"")", 0},
  };
  TemporaryDirectory directory;
  for (const Shape& shape : shapes) {
    SCOPED_TRACE(shape.name);
    ParsedFile parsed = parseBytes(directory, shape.html);
    ASSERT_TRUE(parsed.root);
    EXPECT_EQ(render(*parsed.root), shape.tree);
    EXPECT_EQ(parsed.summary.linkCount, shape.links);
    std::vector<Reason> reasons;
    for (const auto& leftOut : parsed.summary.leftOut) reasons.push_back(leftOut.reason);
    EXPECT_EQ(reasons, shape.leftOut);
    std::size_t withoutAddress = std::count(reasons.begin(), reasons.end(), Reason::LinkWithoutAddress);
    EXPECT_EQ(parsed.summary.linkCount - parsed.summary.itemCount, reasons.size() - withoutAddress);
  }
}

TEST(NetscapeBookmarkParsing, CleaningReplacesEachControlCharacterAndTrimsSpaces) {
  const std::pair<std::string, std::string> cases[] = {
      {"\r\nA\r\nB\r\n", "A  B"},                                  // CR LF is two spaces inside
      {"\xE3\x80\x80 \tx y\xC2\xA0\xE3\x80\x80", "x y"},           // ideographic space and NBSP are Zs: trimmed
      {"a\xC2\xAD" "b\xEF\xBB\xBF" "c\x7F" "d", "a b c d"},        // soft hyphen, BOM (Cf), DEL (Cc)
      {"\xE2\x80\xA8x\xE2\x80\xA8", "\xE2\x80\xA8x\xE2\x80\xA8"},  // line separator (Zl) is neither
      {"\x01\x02", ""},
  };
  for (const auto& [input, expected] : cases) EXPECT_EQ(zb::netscape::cleanedString(input), expected) << input;
}

TEST(NetscapeBookmarkParsing, EncodingsAreDecodedByMarkThenDeclarationThenUTF8ElseWindows1252) {
  auto file = [](const std::string& meta, const std::string& title) {
    return meta + "<DL><p><DT><A HREF=\"u\">" + title + "</A></DL>";
  };
  auto meta = [](const std::string& charset) {
    return "<META HTTP-EQUIV=\"Content-Type\" CONTENT=\"text/html; charset=" + charset + "\">\n";
  };
  const std::pair<std::string, std::string> cases[] = {
      {"\xEF\xBB\xBF" + file(meta("windows-1252"), "\xC3\xA9"), "\xC3\xA9"},  // the mark wins over META
      {"\xFF\xFE" + std::string("<\0D\0L\0>\0<\0D\0T\0>\0<\0A\0 \0H\0R\0E\0F\0=\0u\0>\0\xE9\0", 38), "\xC3\xA9"},
      {file(meta("windows-1252"), "\x93q\x94"), "\xE2\x80\x9Cq\xE2\x80\x9D"},
      {file(meta("ISO-8859-1"), "\x80"), "\xE2\x82\xAC"},  // read as windows-1252, as browsers do
      {file(meta("x-mac-roman"), "\x8A\xD2"), "\xC3\xA4\xE2\x80\x9C"},
      {file(meta("X-MAC-SYSTEM"), "\x8E"), "\xC3\xA9"},
      {file(meta("UTF-8"), "\xE6\x94\xB6"), "\xE6\x94\xB6"},
      {file(meta("no-such-charset"), "\xC3\xA9"), "\xC3\xA9"},  // unknown: as if undeclared
      {file(meta("UTF-16"), "\xC3\xA9"), "\xC3\xA9"},           // a META that says UTF-16 means UTF-8
      {file("", "\xC3\xA9"), "\xC3\xA9"},                        // undeclared, valid UTF-8
      {file("", "\xE9t\xE9"), "\xC3\xA9t\xC3\xA9"},              // undeclared, not UTF-8
      {file(meta("windows-1252"), "caf&eacute; &#x263A;"), "caf\xC3\xA9 \xE2\x98\xBA"},
  };
  TemporaryDirectory directory;
  for (const auto& [bytes, title] : cases) {
    ParsedFile parsed = parseBytes(directory, bytes);
    ASSERT_TRUE(parsed.root);
    EXPECT_EQ(render(*parsed.root), "F\"\"{I\"" + title + "\"<u>}") << bytes;
  }
}

TEST(NetscapeBookmarkParsing, UnreadableFilesGiveNeitherFolderNorError) {
  TemporaryDirectory directory;
  std::ofstream(directory / "empty.html").close();
  std::ofstream(directory / "locked.html") << "<DL><DT><A HREF=\"u\">x</A></DL>";
  ::chmod((directory / "locked.html").c_str(), 0);
  std::vector<std::filesystem::path> paths = {directory / "missing.html", directory.path(), directory / "empty.html"};
  if (::geteuid() != 0) paths.push_back(directory / "locked.html");  // root reads it anyway
  for (const auto& path : paths) {
    ParsedFile parsed = parseFile(path);
    EXPECT_FALSE(parsed.root) << path;
    EXPECT_FALSE(parsed.error) << path;
    EXPECT_EQ(parsed.summary.linkCount, 0u);
  }
  auto remote = ZBTarrowNetscapeBookmarkParsingOperation::create(*NSURL::URLWithString("https://example.com/b.html"));
  remote->start();
  EXPECT_FALSE(remote->completionProvider()(nullptr));
}

TEST(NetscapeBookmarkParsing, HostileInputNeverCrashes) {
  TemporaryDirectory directory;
  std::string junk;
  for (int i = 0; i < 64 * 1024; ++i) junk.push_back(static_cast<char>((i * 7919) >> 3));
  ParsedFile parsed = parseBytes(directory, junk);
  ASSERT_TRUE(parsed.root);  // libxml2 reads anything as text
  EXPECT_FALSE(parsed.root->items());

  // Folders nested 100 000 deep: the link at the bottom is found, and the
  // tree is built and released without recursion.
  constexpr int depth = 100000;
  std::string deep = "<DL><p>";
  for (int i = 0; i < depth; ++i) deep += "<DT><H3>f</H3><DL><p>";
  deep += "<DT><A HREF=\"bottom\">Bottom</A>";
  for (int i = 0; i < depth; ++i) deep += "</DL><p>";
  deep += "</DL><DT><A HREF=\"after\">After</A>";
  parsed = parseBytes(directory, deep);
  ASSERT_TRUE(parsed.root);
  const ZBTarrowNetscapeBookmarkFolder* folder = parsed.root.get();
  int levels = 0;
  while (folder->items() && folder->items()->size() >= 1 &&
         dynamic_cast<const ZBTarrowNetscapeBookmarkFolder*>(folder->items()->front().get())) {
    EXPECT_EQ(folder->items()->size(), levels == 0 ? 2u : 1u);
    folder = static_cast<const ZBTarrowNetscapeBookmarkFolder*>(folder->items()->front().get());
    ++levels;
  }
  EXPECT_EQ(levels, depth);
  EXPECT_EQ(render(*folder), R"(F"f"{I"Bottom"<bottom>})");
  EXPECT_EQ(render(*parsed.root->items()->back()), R"(I"After"<after>)");

  // A title of 8 MB and an address of 2 MB, unclosed, do not swallow the next entry.
  std::string title(8 << 20, 't');
  std::string address(2 << 20, 'h');
  parsed = parseBytes(directory, "<DL><DT><A HREF=\"" + address + "\" ICON=\"" + address + "\">" + title +
                                     "\n<DT><A HREF=\"next\">Next</A></DL>");
  ASSERT_TRUE(parsed.root && parsed.root->items());
  ASSERT_EQ(parsed.root->items()->size(), 2u);
  auto* big = static_cast<const ZBTarrowNetscapeBookmarkItem*>(parsed.root->items()->front().get());
  EXPECT_EQ(big->title(), title);
  EXPECT_EQ(big->url(), address);
  EXPECT_EQ(render(*parsed.root->items()->back()), R"(I"Next"<next>)");
}

TEST(NetscapeBookmarkParsing, LargeExportsKeepEveryLinkInOrder) {
  TemporaryDirectory directory;
  // 10 000 links in one folder.
  std::string flat = "<DL><p><DT><H3>All</H3><DL><p>\n";
  for (int i = 0; i < 10000; ++i) {
    flat += "<DT><A HREF=\"https://e.example/" + std::to_string(i) + "\" ADD_DATE=\"1\">L" + std::to_string(i) + "</A>\n";
  }
  flat += "</DL><p></DL>";
  ParsedFile parsed = parseBytes(directory, flat);
  ASSERT_TRUE(parsed.root && parsed.root->items());
  const auto& all = static_cast<const ZBTarrowNetscapeBookmarkFolder&>(*parsed.root->items()->front());
  ASSERT_TRUE(all.items());
  ASSERT_EQ(all.items()->size(), 10000u);
  for (int i = 0; i < 10000; ++i) {
    auto* item = static_cast<const ZBTarrowNetscapeBookmarkItem*>((*all.items())[i].get());
    ASSERT_EQ(item->url(), "https://e.example/" + std::to_string(i));
    ASSERT_EQ(item->title(), "L" + std::to_string(i));
  }

  // 100 000 links in 1 000 folders nested 5 deep, some described, with notes:
  // a walk of the tree meets them in file order.
  std::string nested = "<DL><p>\n";
  int next = 0;
  for (int group = 0; group < 200; ++group) {
    for (int level = 0; level < 5; ++level) {
      nested += "<DT><H3>G" + std::to_string(group) + "." + std::to_string(level) + "</H3>\n";
      if (level % 2) nested += "<DD>about this folder\n";
      nested += "<DL><p>\n";
      for (int i = 0; i < 100; ++i, ++next) {
        nested += "<DT><A HREF=\"https://n.example/" + std::to_string(next) + "\">N</A>\n";
        if (i % 10 == 0) nested += "<DD>note <b>bold</b>\n";
      }
    }
    for (int level = 0; level < 5; ++level) nested += "</DL><p>\n";
  }
  nested += "</DL>\n";
  parsed = parseBytes(directory, nested);
  ASSERT_TRUE(parsed.root);
  EXPECT_EQ(parsed.summary.linkCount, 100000u);
  EXPECT_EQ(parsed.summary.itemCount, 100000u);
  std::vector<const ZBTarrowNetscapeBookmarkFolder*> pending = {parsed.root.get()};
  int seen = 0;
  int folders = 0;
  while (!pending.empty()) {  // depth first, in document order
    const auto* folder = pending.back();
    pending.pop_back();
    if (!folder->items()) continue;
    for (auto it = folder->items()->rbegin(); it != folder->items()->rend(); ++it) {
      if (auto* sub = dynamic_cast<const ZBTarrowNetscapeBookmarkFolder*>(it->get())) {
        pending.push_back(sub);
        ++folders;
      }
    }
    for (const auto& bookmark : *folder->items()) {
      // This folder's own links precede its subfolder in the file.
      if (dynamic_cast<const ZBTarrowNetscapeBookmarkFolder*>(bookmark.get())) break;
      auto* item = static_cast<const ZBTarrowNetscapeBookmarkItem*>(bookmark.get());
      ASSERT_EQ(item->url(), "https://n.example/" + std::to_string(seen));
      ++seen;
    }
  }
  EXPECT_EQ(seen, 100000);
  EXPECT_EQ(folders, 1000);
}

// Bytes that XML cannot carry, from outside the program, in saved
// documents: the file still parses, and only those bytes are replaced.
#include <gtest/gtest.h>
#include <libxml/parser.h>

#include <memory>
#include <string>

#include "support/ferrow_runner.h"
#include "xml/migration_status.h"
#include "xml/xml_test_util.h"

namespace tovel {
namespace {

struct DocFree {
  void operator()(xmlDocPtr doc) const { xmlFreeDoc(doc); }
};

TEST(XmlTextTest, UnrepresentableBytesBecomeReplacementCharacters) {
  ferrow_test::ensurePanelAccount();
  xml_test::ScratchSession session;
  std::unique_ptr<MigrationStatus> status = createMigrationStatusFile();
  status->setAgentParams("h\x01st\xff caf\xc3\xa9 \xe2\x82");
  status->setTransferSpeed("5\x1b[1m");
  status->setTransferDump();
  status->saveFile();

  std::unique_ptr<xmlDoc, DocFree> doc(
      xmlReadFile(session.statusFile().c_str(), nullptr, XML_PARSE_NONET));
  ASSERT_NE(doc, nullptr) << ferrow_test::readFile(session.statusFile());
  EXPECT_EQ(xml_test::savedBody(session.statusFile()),
            "<migration-status><transfer speed=\"5\xef\xbf\xbd[1m\"><host>"
            "h\xef\xbf\xbdst\xef\xbf\xbd caf\xc3\xa9 \xef\xbf\xbd\xef\xbf\xbd"
            "</host><dumpfile/></transfer></migration-status>");
}

}  // namespace
}  // namespace tovel

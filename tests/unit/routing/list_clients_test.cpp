#include "routing/ListClients.h"

#include <sstream>

#include "fixture.h"

namespace TestSupport {
namespace {

using MessageRouter::ClientData;
using MessageRouter::ListClients;

class ListClientsTest : public RoutingTest {
 protected:
  ~ListClientsTest() override { ClientData::SetVerbose(false); }
  static std::string Text(const MessageRouter::Streamable& value) {
    std::ostringstream stream;
    stream << value;
    return stream.str();
  }
};

TEST_F(ListClientsTest, ARecordHasAShortAndALongForm) {
  ClientData data;
  data.name = "agent";
  data.isLoggedOn = true;
  data.isPassiveConsumer = true;
  EXPECT_EQ(Text(data), "(agent,T,F,F,T)");
  ClientData::SetVerbose(true);
  EXPECT_EQ(Text(data),
            "ClientData(name=agent,isLoggedOn=T,isRouter=F,isParent=F,isPassiveConsumer=T)");
}

TEST_F(ListClientsTest, HasOneRecordForEachRegisteredEntryAndTheParentOnce) {
  LogonPushed(AClient("agent"));
  AClient("gone");
  table_.Unregister("gone");
  table_.AddParent("");
  table_.SetParentName("boss");
  ListClients list;
  table_.Scan(list);
  EXPECT_EQ(Text(list), "([2],(agent,T,F,F,T),(boss,F,T,T,F))");
  ClientData::SetVerbose(true);
  EXPECT_EQ(Text(list),
            "ListClients([count=2],"
            "[0]ClientData(name=agent,isLoggedOn=T,isRouter=F,isParent=F,isPassiveConsumer=T),"
            "[1]ClientData(name=boss,isLoggedOn=F,isRouter=T,isParent=T,isPassiveConsumer=F))");
}

TEST_F(ListClientsTest, AnEmptyListSaysSo) {
  ListClients list;
  EXPECT_EQ(Text(list), "([0])");
}

}  // namespace
}  // namespace TestSupport

// Random sends of every priority, acknowledgements, losses and reconnections against a model: the link with
// its outbox, the test plays the broker and the spool. Whatever happens, each connection carries the uploads
// of a priority in the order in which they were accepted, the lower number first, neither group starves, and
// nothing is lost or sent again after its acknowledgement.
#include <gtest/gtest.h>
#include <rapidcheck.h>

#include <array>
#include <map>
#include <tuple>
#include <utility>

#include "LongLinkFixture.h"

using namespace zxcloud;

namespace {

constexpr int kConnections = 2;  // that for commands, that for large uploads
constexpr int kNowhere = -1;
constexpr int kMostTurns = 100;

enum class EStep { Waited, Spooled, SpooledCold, Load, Ack, Lose, LoseBulk, ComeUp, Time, SocketFull };
void showValue(EStep eStep, std::ostream& os) {
  os << static_cast<int>(eStep);
}
// What happens, and two numbers that say more.
using TStep = std::tuple<EStep, int, int>;

struct _Upload {
  TOutItem pItem;
  int iIndex = 0;  // of the priority
  bool bLarge = false;
  bool bSpooled = false;
  int iConnection = kNowhere;  // under way there
  bool bDone = false;

  bool Waits() const { return !bDone && iConnection == kNowhere; }
  int Group() const { return iIndex / kPriorityGroup; }
};

class CModel : public CLongLinkFixture {
 public:
  // bCold: bodies of spooled uploads are read later; then they may be passed.
  explicit CModel(bool bCold) : m_bCold(bCold) {
    m_random.uPercent = 0;  // no long waits
    Configure("127.0.0.1:1");
    Settle();
  }
  void Do(const TStep& step) {
    const auto& [eStep, iFirst, iSecond] = step;
    if (eStep == EStep::Lose || eStep == EStep::LoseBulk || eStep == EStep::ComeUp || eStep == EStep::Time)
      ForgetTurns();
    switch (eStep) {
      case EStep::Waited:
        Waited(iFirst, iSecond);
        break;
      case EStep::Spooled:
        Spooled(iFirst, iSecond, false);
        break;
      case EStep::SpooledCold:
        Spooled(iFirst, iSecond, m_bCold);
        break;
      case EStep::Load:
        Load();
        break;
      case EStep::Ack:
        Ack(iFirst % kConnections, static_cast<size_t>(iSecond % 20));
        break;
      case EStep::Lose:
        Lose(*m_pTransport);
        break;
      case EStep::LoseBulk:
        Lose(*m_pBulk);
        break;
      case EStep::ComeUp:
        ComeUpAgain();
        break;
      case EStep::Time:
        Advance(static_cast<uint64_t>(iFirst % 3000));
        break;
      case EStep::SocketFull:
        Transport(iFirst % kConnections).bFull = iSecond % 2 == 0;
        break;
    }
    Settle();
  }
  // Everything goes, once nothing stands in the way.
  void Finish() {
    for (int i = 0; i < 1000 && m_outbox.State().u64Entries != 0; ++i) {
      m_pTransport->bFull = m_pBulk->bFull = false;
      ForgetTurns();
      ComeUpAgain();
      Load();
      Settle();
      Ack(0, SIZE_MAX);
      Ack(1, SIZE_MAX);
      Advance(100);
      Settle();
    }
    RC_ASSERT(m_outbox.State().u64Entries == 0u);
    RC_ASSERT(m_outbox.Bytes() == 0u);
    for (const _Upload& upload : m_list)
      RC_ASSERT(upload.bDone);
  }

 private:
  void TestBody() override {}

  CFakeTransport& Transport(int i) { return i == 0 ? *m_pTransport : *m_pBulk; }

  static std::string BodyOf(int i) {
    return std::string(static_cast<size_t>(i % 4 == 0 ? static_cast<int>(kCommandBytes) + 1 + i : i % 4097),
                       'b');
  }
  void Keep(const TOutItem& pItem, bool bSpooled) {
    m_mapNumbers[pItem->u64Seq] = m_list.size();
    m_list.push_back(
        {pItem, PriorityIndex(pItem->iPriority), LaneOf(pItem->Body().size()) == ELane::Bulk, bSpooled});
  }
  void Waited(int iFirst, int iSecond) {
    const auto pItem =
        MakeOutItem(++m_u64Seq, PriorityOf(iFirst % kPriorityCount), "id", BodyOf(iSecond), true);
    RC_ASSERT(m_outbox.Add(pItem));
    Keep(pItem, false);
  }
  void Spooled(int iFirst, int iSecond, bool bCold) {
    const uint64_t u64Row = m_outbox.NextRow();
    const auto pItem =
        MakeOutItem(kSpoolBit | u64Row, PriorityOf(iFirst % kPriorityCount), "id", BodyOf(iSecond));
    const _SpoolEntry entry{u64Row, static_cast<uint32_t>(pItem->Bytes()), 1800000000};
    if (bCold)
      m_outbox.Recover({{SpoolQueue(PriorityIndex(pItem->iPriority), LaneOf(pItem->Body().size())), entry}});
    else
      m_outbox.AddSpooled({{entry, pItem}});
    Keep(pItem, true);
  }
  void Load() {
    for (int iQueue = 0; iQueue < kSpoolQueues; ++iQueue) {
      for (const uint64_t u64Row : m_outbox.RowsToLoad(iQueue))
        m_outbox.Loaded(iQueue, m_list[m_mapNumbers.at(kSpoolBit | u64Row)].pItem);
    }
  }
  void Ack(int iConnection, size_t uCount) {
    for (_Upload& upload : m_list) {
      if (uCount == 0)
        return;
      if (upload.iConnection != iConnection)
        continue;
      Transport(iConnection).events.OnAck(upload.pItem->u64Seq);
      upload.iConnection = kNowhere;
      upload.bDone = true;
      --uCount;
    }
  }
  static void Lose(CFakeTransport& transport) {
    if (!transport.bOpen)
      return;
    transport.bOpen = false;
    transport.events.OnClosed(EMqttFailure::Network, "gone");
  }
  void ComeUpAgain() {
    if (m_pTransport->bOpen && !m_link.IsUp())
      CLongLinkFixture::ComeUp(*m_pTransport);
    Turn();
    if (!m_pBulk->bOpen || m_link.Status().bBulkUp)
      return;
    See();  // what went while small and large were together
    CLongLinkFixture::ComeUp(*m_pBulk);
    ForgetTurns();
  }

  // Turns are counted anew when small and large uploads part or come together.
  void ForgetTurns() {
    for (_Connection& connection : m_connections)
      connection.iFirstInARow = connection.iSecondInARow = 0;
  }

  // Turns until the link has nothing more to do, then compares.
  void Settle() {
    size_t uBefore = 0;
    int iTurns = 0;
    do {
      uBefore = m_pTransport->published.size() + m_pBulk->published.size();
      Turn(2);
    } while (m_pTransport->published.size() + m_pBulk->published.size() != uBefore && ++iTurns < kMostTurns);
    RC_ASSERT(iTurns < kMostTurns);
    See();
    for (int i = 0; i < kConnections; ++i)
      SeeWhatWaits(i);
  }
  void See() {
    for (int i = 0; i < kConnections; ++i)
      SeeLoss(i);
    for (int i = 0; i < kConnections; ++i)
      SeePublished(i);
  }
  void SeeLoss(int iConnection) {
    _Connection& connection = m_connections[static_cast<size_t>(iConnection)];
    const CFakeTransport& transport = Transport(iConnection);
    if (transport.bOpen && transport.opened.size() == connection.uOpened)
      return;
    connection = {transport.opened.size(), connection.uSeen, {}, 0, 0};
    for (_Upload& upload : m_list) {
      if (upload.iConnection == iConnection)
        upload.iConnection = kNowhere;
    }
  }
  void SeePublished(int iConnection) {
    _Connection& connection = m_connections[static_cast<size_t>(iConnection)];
    const CFakeTransport& transport = Transport(iConnection);
    for (; connection.uSeen < transport.published.size(); ++connection.uSeen) {
      const auto& one = transport.published[connection.uSeen];
      const size_t uNumber = m_mapNumbers.at(one.u64Token);
      _Upload& upload = m_list[uNumber];
      RC_ASSERT(upload.Waits());
      RC_ASSERT(one.strTopic == "zx/v1/m-1/up/" + std::to_string(upload.pItem->iPriority));
      RC_ASSERT(one.strPayload == upload.pItem->strWire);
      size_t& uNext = connection.mapNext[{upload.iIndex, upload.bLarge, m_bCold && upload.bSpooled}];
      RC_ASSERT(uNumber >= uNext);
      uNext = uNumber + 1;
      if (!m_bCold)
        SeeTurn(connection, iConnection, upload);
      upload.iConnection = iConnection;
    }
  }
  struct _Load {
    size_t uMessages = 0;
    size_t uBytes = 0;
  };
  _Load UnderWay(int iConnection) const {
    _Load load;
    for (const _Upload& upload : m_list) {
      if (upload.iConnection == iConnection)
        load = {load.uMessages + 1, load.uBytes + upload.pItem->Bytes()};
    }
    return load;
  }
  // There is room for anything, so that only the order decides.
  bool Roomy(int iConnection) const {
    const _Load load = UnderWay(iConnection);
    return load.uMessages < 40 && load.uBytes < 160000;
  }
  struct _Connection {
    size_t uOpened = 0;
    size_t uSeen = 0;
    std::map<std::tuple<int, bool, bool>, size_t> mapNext;
    int iFirstInARow = 0;  // uploads of one group while the other waited
    int iSecondInARow = 0;
  };
  void SeeTurn(_Connection& connection, int iConnection, const _Upload& upload) {
    bool bOtherWaits = false;
    for (const _Upload& other : m_list) {
      if (&other == &upload || !other.Waits() || other.bLarge != upload.bLarge)
        continue;
      RC_ASSERT(other.Group() != upload.Group() || other.iIndex >= upload.iIndex);
      bOtherWaits = bOtherWaits || other.Group() != upload.Group();
    }
    if (!bOtherWaits || !Roomy(iConnection) || (iConnection == 0 && upload.bLarge)) {
      connection.iFirstInARow = connection.iSecondInARow = 0;
      return;
    }
    connection.iFirstInARow = upload.Group() == 0 ? connection.iFirstInARow + 1 : 0;
    connection.iSecondInARow = upload.Group() == 0 ? 0 : connection.iSecondInARow + 1;
    RC_ASSERT(connection.iFirstInARow <= 3);
    RC_ASSERT(connection.iSecondInARow <= 1);
  }
  // The first of a priority does not wait where it is urgent and there is room for it; nothing waits at all
  // where nothing is under way.
  void SeeWhatWaits(int iConnection) {
    const CFakeTransport& transport = Transport(iConnection);
    const bool bUp = transport.bOpen && (iConnection == 0 ? m_link.IsUp() : m_link.Status().bBulkUp);
    if (!bUp || transport.bFull || m_bCold)
      return;
    const _Load load = UnderWay(iConnection);
    std::array<bool, kPriorityCount> bSeen{};
    for (const _Upload& upload : m_list) {
      if (!upload.Waits() || upload.bLarge != (iConnection == 1) ||
          std::exchange(bSeen[static_cast<size_t>(upload.iIndex)], true))
        continue;
      RC_ASSERT(load.uMessages != 0u);
      RC_ASSERT(!IsUrgent(upload.iIndex) || load.uMessages == 64u ||
                load.uBytes + upload.pItem->Bytes() > (iConnection == 0 ? 256u << 10 : 4u << 20));
    }
  }
  const bool m_bCold;
  std::vector<_Upload> m_list;  // in the order of their acceptance
  std::map<uint64_t, size_t> m_mapNumbers;
  std::array<_Connection, kConnections> m_connections;
};

rc::Gen<std::vector<TStep>> Steps() {
  const auto Kind = rc::gen::weightedElement<EStep>({{8, EStep::Waited},
                                                     {8, EStep::Spooled},
                                                     {4, EStep::SpooledCold},
                                                     {3, EStep::Load},
                                                     {6, EStep::Ack},
                                                     {1, EStep::Lose},
                                                     {1, EStep::LoseBulk},
                                                     {3, EStep::ComeUp},
                                                     {2, EStep::Time},
                                                     {2, EStep::SocketFull}});
  return rc::gen::scale(4.0, rc::gen::container<std::vector<TStep>>(rc::gen::tuple(
                                 Kind, rc::gen::inRange(0, 30000), rc::gen::inRange(0, 30000))));
}

bool Holds(bool bCold) {
  return rc::check([bCold] {
    const std::vector<TStep> listSteps = *Steps();
    CModel model(bCold);
    for (const TStep& step : listSteps)
      model.Do(step);
    model.Finish();
  });
}

}  // namespace

TEST(OrderModel, EachPriorityInOrder_TheUrgentFirst_NothingLost) {
  EXPECT_TRUE(Holds(false));
}

TEST(OrderModel, BodiesReadLater_KeepTheOrderOfTheSpool) {
  EXPECT_TRUE(Holds(true));
}

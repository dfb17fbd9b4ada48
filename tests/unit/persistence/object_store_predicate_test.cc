#include <gtest/gtest.h>

#include <chrono>
#include <set>

#include "object_store_fixture.h"
#include "support/raw_sqlite.h"

namespace sonorell::testing {
namespace {

using namespace std::chrono;

class ObjectStorePredicateTest : public ObjectStoreTest {
 protected:
  void SetUp() override {
    ObjectStoreTest::SetUp();
    ::setenv("TZ", "UTC", 1);
    ::tzset();
    setUpOnMain();
    add("1", "The Hobbit", 1000, "Tolkien", "1937-09-21", true);
    add("2", "the silmarillion", 2000, "Tolkien", "1977-09-15", true);
    add("3", "Dune", 3000, "Herbert", "1965-08-01", false);
    add("4", "Emma", 4000, "Austen", "bad date", false);
    add("5", "Hobbitry", 5000, "Nobody", "2001-01-01", false);
  }

  void add(const std::string& id, const std::string& title, int64_t size, const std::string& author,
           const std::string& streetDate, bool chapterized) {
    Dictionary doc = book(id, title, 1);
    doc["actual_size"] = size;
    doc["authors"] = Array{author, "Editor"};
    doc["street_date"] = streetDate;
    doc["chapterized"] = chapterized;
    store()->addAudiobook(doc);
  }

  std::set<std::string> ids(const QSOPredicate& predicate) {
    std::set<std::string> out;
    for (const auto& b : store()->audiobooksForPredicate(predicate, {}, 0)) {
      out.insert(b->audiobookID());
    }
    EXPECT_EQ(store()->audiobooksCountForPredicate(predicate), out.size());
    return out;
  }
  using Ids = std::set<std::string>;
};

// --- Comparisons ---

TEST_F(ObjectStorePredicateTest, NumberComparisons) {
  QSOAttribute size("actualSize");
  EXPECT_EQ(ids(size.equals(3000)), Ids{"3"});
  EXPECT_EQ(ids(size.notEquals(3000)), (Ids{"1", "2", "4", "5"}));
  EXPECT_EQ(ids(size.lessThan(3000)), (Ids{"1", "2"}));
  EXPECT_EQ(ids(size.lessThanOrEqual(3000)), (Ids{"1", "2", "3"}));
  EXPECT_EQ(ids(size.greaterThan(3000)), (Ids{"4", "5"}));
  EXPECT_EQ(ids(size.greaterThanOrEqual(4000.0)), (Ids{"4", "5"}));
  EXPECT_EQ(ids(size.in({1000, 5000, 7})), (Ids{"1", "5"}));
  EXPECT_EQ(ids(QSOAttribute("chapterized").equals(true)), (Ids{"1", "2"}));
}

TEST_F(ObjectStorePredicateTest, TextComparisonsWithAndWithoutCase) {
  QSOAttribute title("title");
  EXPECT_EQ(ids(title.equals("Dune")), Ids{"3"});
  EXPECT_EQ(ids(title.equals("dune")), Ids{});
  EXPECT_EQ(ids(title.equals("dune", true)), Ids{"3"});
  EXPECT_EQ(ids(title.beginsWith("Hobbit")), Ids{"5"});
  EXPECT_EQ(ids(title.beginsWith("THE ", true)), (Ids{"1", "2"}));
  EXPECT_EQ(ids(title.beginsWith("The ")), Ids{"1"});
  EXPECT_EQ(ids(title.contains("obbit")), (Ids{"1", "5"}));
  EXPECT_EQ(ids(title.contains("SIL")), Ids{});
  EXPECT_EQ(ids(title.contains("SIL", true)), Ids{"2"});
  EXPECT_EQ(ids(title.in({"Emma", "Dune"})), (Ids{"3", "4"}));
  EXPECT_EQ(ids(title.in({"EMMA"}, true)), Ids{"4"});
  EXPECT_EQ(ids(QSOAttribute("authors").contains("Tolkien")), (Ids{"1", "2"}));
  EXPECT_EQ(ids(QSOAttribute("authors").equals("Austen,Editor")), Ids{"4"});
  EXPECT_EQ(ids(QSOAttribute("audiobookID").lessThan("3")), (Ids{"1", "2"}));
}

TEST_F(ObjectStorePredicateTest, DatesAndAbsentValues) {
  Date cut = Date{} + hours(24 * 365 * 5);  // late December 1974
  QSOAttribute street("streetDate");
  EXPECT_EQ(ids(street.lessThan(cut)), (Ids{"1", "3"}));
  EXPECT_EQ(ids(street.equals(std::monostate{})), Ids{"4"});  // "bad date" is absent
  EXPECT_EQ(ids(street.notEquals(std::monostate{})), (Ids{"1", "2", "3", "5"}));
  // NOT is plain negation: the absent date counts as not matching, so NOT matches it.
  EXPECT_EQ(ids(!street.lessThan(cut)), (Ids{"2", "4", "5"}));
}

TEST_F(ObjectStorePredicateTest, AndOrNotCombine) {
  QSOAttribute size("actualSize");
  QSOAttribute authors("authors");
  EXPECT_EQ(ids(authors.contains("Tolkien") && size.greaterThan(1500)), Ids{"2"});
  EXPECT_EQ(ids(size.equals(1000) || size.equals(5000) || size.equals(4000)), (Ids{"1", "4", "5"}));
  EXPECT_EQ(ids(!(authors.contains("Tolkien") || size.lessThan(4000))), (Ids{"4", "5"}));
  EXPECT_EQ(ids(QSOPredicate::andPredicate({})).size(), 5u);
  EXPECT_EQ(ids(QSOPredicate::orPredicate({})), Ids{});
  EXPECT_EQ(ids(size.in({})), Ids{});
}

TEST_F(ObjectStorePredicateTest, SortsByManyKeysAndFoldedCase) {
  std::vector<std::string> order;
  for (const auto& b : store()->audiobooksForPredicate(
           {}, {{"chapterized", false, false}, {"actualSize", false, false}}, 0)) {
    order.push_back(b->audiobookID());
  }
  EXPECT_EQ(order, (std::vector<std::string>{"2", "1", "5", "4", "3"}));
  order.clear();
  for (const auto& b : store()->audiobooksForPredicate({}, {{"title", true, true}}, 0)) {
    order.push_back(b->audiobookID());
  }
  // Dune, Emma, Hobbitry, The Hobbit, the silmarillion.
  EXPECT_EQ(order, (std::vector<std::string>{"3", "4", "5", "1", "2"}));
}

// --- Hostile and invalid input ---

TEST_F(ObjectStorePredicateTest, InjectionTextIsAValueThatMatchesNothingAndHarmsNothing) {
  const std::string hostile = "'); DROP TABLE QSOAudiobook; --";
  for (const char* attribute : {"title", "audiobookID", "publisher", "authors"}) {
    EXPECT_EQ(ids(QSOAttribute(attribute).equals(hostile)), Ids{}) << attribute;
    EXPECT_EQ(ids(QSOAttribute(attribute).contains(hostile, true)), Ids{}) << attribute;
  }
  EXPECT_EQ(store()->audiobookForID(hostile), nullptr);
  store()->removeAudiobookForID(hostile);
  EXPECT_EQ(store()->audiobooksCount(), 5u);

  // Stored as an identifier and a title, it reads back unchanged.
  store()->addAudiobook(book(hostile, hostile, 1));
  auto copy = store()->audiobookForID(hostile);
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(copy->title(), hostile);
  EXPECT_EQ(ids(QSOAttribute("title").equals(hostile)), Ids{hostile});
  RawSqlite raw(storePath());
  EXPECT_EQ(raw.integer("SELECT COUNT(*) FROM QSOAudiobook"), 6);
  EXPECT_EQ(raw.integer("SELECT COUNT(*) FROM QSOChapter"), 6);
}

TEST_F(ObjectStorePredicateTest, UnknownAttributesWrongTypesAndOperatorsAreClearErrorsNotCrashes) {
  auto unknown = QSOAttribute("titel").equals("Dune");
  ASSERT_TRUE(unknown.validationError().has_value());
  EXPECT_NE(unknown.validationError()->find("unknown attribute \"titel\""), std::string::npos);
  EXPECT_TRUE(store()->audiobooksForPredicate(unknown, {}, 0).empty());
  EXPECT_EQ(store()->audiobooksCountForPredicate(unknown), 0u);
  EXPECT_EQ(logged("unknown attribute \"titel\""), 2u);

  auto hostileName = QSOAttribute("title\" = \"\" OR 1=1; DROP TABLE QSOAudiobook; --").equals("x");
  EXPECT_TRUE(hostileName.validationError().has_value());
  EXPECT_TRUE(store()->audiobooksForPredicate(hostileName, {}, 0).empty());
  EXPECT_TRUE(store()->audiobooksForPredicate({}, {{"pk", true, false}}, 0).empty());
  EXPECT_EQ(logged("unknown sort key \"pk\""), 1u);
  // Nested deep inside a valid predicate it is still found.
  auto nested = QSOAttribute("title").equals("Dune") || !QSOAttribute("nope").equals(1);
  EXPECT_TRUE(nested.validationError().has_value());
  EXPECT_EQ(store()->audiobooksCount(), 5u);

  // Wrong value types and operators are refused too.
  EXPECT_TRUE(QSOAttribute("actualSize").equals("big").validationError().has_value());
  EXPECT_TRUE(QSOAttribute("actualSize").contains("1").validationError().has_value());
  EXPECT_TRUE(QSOAttribute("actualSize").equals(1.5).validationError().has_value());
  EXPECT_TRUE(QSOAttribute("streetDate").greaterThan("1999").validationError().has_value());
  EXPECT_TRUE(QSOAttribute("title").lessThan(std::monostate{}).validationError().has_value());
  EXPECT_TRUE(QSOAttribute("title").in({std::monostate{}}).validationError().has_value());
  EXPECT_FALSE(QSOAttribute("title").equals("x").validationError().has_value());
  EXPECT_EQ(store()->audiobooksCountForPredicate(QSOAttribute("actualSize").equals("big")), 0u);
  EXPECT_EQ(logged("actualSize must be compared with a number"), 1u);
}

}  // namespace
}  // namespace sonorell::testing

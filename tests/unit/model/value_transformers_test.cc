#include "model/value_transformers.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

namespace sonorell {
namespace {

StoredBytes bytes(std::string_view text) { return StoredBytes(text.begin(), text.end()); }

std::vector<std::string> strings(const Value& value) {
  std::vector<std::string> out;
  const Array* array = value.asArray();
  if (!array) {
    ADD_FAILURE() << "not an array: " << value.description();
    return out;
  }
  for (const Value& element : *array) {
    auto text = element.asString();
    EXPECT_TRUE(text.has_value()) << element.description();
    out.push_back(text.value_or("<not a string>"));
  }
  return out;
}

// --- Sort-form titles back to display form ---

TEST(RelocateTrailingCommas, MovesOnlyAnExactTrailingTheOrAToTheFront) {
  EXPECT_EQ(SOTitleTransformer::relocateTrailingCommas("Hobbit, The"), "The Hobbit");
  EXPECT_EQ(SOTitleTransformer::relocateTrailingCommas("Tale, A"), "A Tale");
  // Middle pieces keep their blanks.
  EXPECT_EQ(SOTitleTransformer::relocateTrailingCommas("Foo,Bar, Baz, The"), "The Foo,Bar, Baz");
  EXPECT_EQ(SOTitleTransformer::relocateTrailingCommas("Tale, Told, A"), "A Tale, Told");
  // A leading article piece is not the sort form; a trailing one is, whatever precedes it.
  EXPECT_EQ(SOTitleTransformer::relocateTrailingCommas("Hobbit, The, A"), "A Hobbit, The");
  EXPECT_EQ(SOTitleTransformer::relocateTrailingCommas(", The"), "The ");
  for (const char* title : {"Hobbit", "Hobbit, the", "Hobbit,The", "Hobbit, An", "Hobbit, The ",
                            "Hobbit, a", "", ",", "Hobbit, Thereafter", "The, Hobbit"}) {
    EXPECT_EQ(SOTitleTransformer::relocateTrailingCommas(title), title) << title;
  }
}

// --- Title transformer ---

TEST(TitleTransformer, StoresStringBytesUnchangedAndReadsThemBackInDisplayForm) {
  SOTitleTransformer transformer;
  EXPECT_EQ(transformer.transformedValue(Value("Ærø, The")), bytes("Ærø, The"));
  EXPECT_EQ(transformer.transformedValue(Value("")), StoredBytes());
  EXPECT_FALSE(transformer.transformedValue(Value()).has_value());
  EXPECT_FALSE(transformer.transformedValue(Value(int64_t{5})).has_value());
  EXPECT_EQ(transformer.reverseTransformedValue(bytes("Hobbit, The")), Value("The Hobbit"));
  EXPECT_EQ(transformer.reverseTransformedValue(bytes("Ærø, A")), Value("A Ærø"));
  EXPECT_EQ(transformer.reverseTransformedValue(bytes("Dune")), Value("Dune"));
  EXPECT_TRUE(transformer.allowsReverseTransformation());
}

TEST(TitleTransformer, UndecodableBytesGiveAnEmptyTitle) {
  SOTitleTransformer transformer;
  // Not UTF-8: stray bytes, an overlong "/", a lone surrogate, a sequence cut short at the end.
  for (const StoredBytes& stored : {StoredBytes{0xFF, 0xFE, 'x'}, StoredBytes{0xC0, 0xAF},
                                    StoredBytes{0xED, 0xA0, 0x80}, StoredBytes{'a', 0xE2, 0x82}}) {
    EXPECT_EQ(transformer.reverseTransformedValue(stored), Value(""));
  }
}

// --- String-to-array transformer ---

TEST(StringToArrayTransformer, StoresStringsAndArraysJoinedWithCommas) {
  QSOStringToArrayTransformer transformer;
  EXPECT_EQ(transformer.transformedValue(Value("a,b")), bytes("a,b"));
  EXPECT_EQ(transformer.transformedValue(Value(Array{Value("Tolkien"), Value("J. R. R.")})),
            bytes("Tolkien,J. R. R."));
  EXPECT_EQ(transformer.transformedValue(Value(Array{})), StoredBytes());
  EXPECT_FALSE(transformer.transformedValue(Value()).has_value());
  std::vector<std::string> codes{"FIC000000", "FIC009000"};
  EXPECT_EQ(QSOStringToArrayTransformer::bytesFromStrings(codes), bytes("FIC000000,FIC009000"));
}

TEST(StringToArrayTransformer, ListsRoundTripUnlessAnElementHoldsAComma) {
  QSOStringToArrayTransformer transformer;
  EXPECT_EQ(transformer.reverseTransformedValue({}), Value(Array{}));
  auto stored = transformer.transformedValue(Value(Array{Value("Ann"), Value("Bo Li"), Value("")}));
  ASSERT_TRUE(stored.has_value());
  EXPECT_EQ(strings(transformer.reverseTransformedValue(*stored)),
            (std::vector<std::string>{"Ann", "Bo Li", ""}));
  EXPECT_EQ(QSOStringToArrayTransformer::stringsFromBytes(*stored),
            (std::vector<std::string>{"Ann", "Bo Li", ""}));
  EXPECT_TRUE(QSOStringToArrayTransformer::stringsFromBytes(StoredBytes{0xFF}).empty());

  auto split = transformer.transformedValue(Value(Array{Value("Smith, John")}));
  ASSERT_TRUE(split.has_value());
  EXPECT_EQ(strings(transformer.reverseTransformedValue(*split)),
            (std::vector<std::string>{"Smith", " John"}));
}

// --- Lookup by name ---

TEST(ValueTransformerRegistry, FindsOursWithoutAnyoneRegisteringThem) {
  auto title = ValueTransformer::valueTransformerForName("SOTitleTransformer");
  ASSERT_NE(title, nullptr);
  EXPECT_NE(dynamic_cast<const SOTitleTransformer*>(title.get()), nullptr);
  EXPECT_EQ(title->reverseTransformedValue(bytes("Hobbit, The")), Value("The Hobbit"));

  auto list = ValueTransformer::valueTransformerForName("QSOStringToArrayTransformer");
  ASSERT_NE(list, nullptr);
  EXPECT_NE(dynamic_cast<const QSOStringToArrayTransformer*>(list.get()), nullptr);

  EXPECT_EQ(ValueTransformer::valueTransformerForName("SOTitleTransformer"), title)
      << "registered once, so every lookup shares one instance";
  EXPECT_EQ(ValueTransformer::valueTransformerForName("sotitletransformer"), nullptr);
  EXPECT_EQ(ValueTransformer::valueTransformerForName("NoSuchTransformer"), nullptr);
}

TEST(ValueTransformerRegistry, ConcurrentFirstLookupsShareOneInstance) {
  std::vector<std::shared_ptr<const ValueTransformer>> found(8);
  std::vector<std::thread> threads;
  for (size_t i = 0; i < found.size(); ++i) {
    threads.emplace_back([&found, i] {
      found[i] = ValueTransformer::valueTransformerForName("SOTitleTransformer");
    });
  }
  for (auto& thread : threads) thread.join();
  ASSERT_NE(found[0], nullptr);
  for (const auto& transformer : found) EXPECT_EQ(transformer, found[0]);
}

TEST(ValueTransformerRegistry, ACallersTransformerReplacesAndCanBeRemoved) {
  auto mine = std::make_shared<QSOStringToArrayTransformer>();
  auto builtIn = std::make_shared<SOTitleTransformer>();
  ValueTransformer::setValueTransformer(mine, "SOTitleTransformer");
  EXPECT_EQ(ValueTransformer::valueTransformerForName("SOTitleTransformer"), mine)
      << "the built-in registration must not overwrite a caller's choice";

  ValueTransformer::setValueTransformer(mine, "Authors");
  EXPECT_EQ(ValueTransformer::valueTransformerForName("Authors"), mine);
  ValueTransformer::setValueTransformer(nullptr, "Authors");
  EXPECT_EQ(ValueTransformer::valueTransformerForName("Authors"), nullptr);
  EXPECT_NE(ValueTransformer::valueTransformerForName("QSOStringToArrayTransformer"), nullptr);
  ValueTransformer::setValueTransformer(builtIn, "SOTitleTransformer");  // for later tests
}

}  // namespace
}  // namespace sonorell

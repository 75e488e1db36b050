// Executes the examples of docs/settings-format.md; the document explains how they are written.
#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "player/ControlPanel/Common/SMConfigFileManager.h"
#include "tests/unit/SettingsEngine/SettingsText.h"
#include "tests/unit/support/TemporaryFolder.h"

namespace {

using SASM::ConfigFileManager;
using SASM::SimpleString;

constexpr char kExampleFence[] = "```settings-example";
constexpr char kTruthFence[] = "```settings-truth";
constexpr char kFenceEnd[] = "```";

/// One line of an example: a word, and the texts in quotation marks after it.
struct Statement {
  std::string word;
  std::vector<std::string> texts;
  int lineNumber;
};

using Example = std::vector<Statement>;

/// The bytes that an escape at `position` stands for; moves `position` to its last character.
char Unescape(std::string const& line, size_t& position) {
  const char kind = line.at(++position);
  switch (kind) {
    case 'n':
      return '\n';
    case 'r':
      return '\r';
    case 't':
      return '\t';
    case '"':
    case '\\':
      return kind;
    case 'x':
      position += 2;
      return static_cast<char>(std::stoi(line.substr(position - 1, 2), nullptr, 16));
    default:
      ADD_FAILURE() << "unknown escape in: " << line;
      return '?';
  }
}

Statement ParseStatement(std::string const& line, int lineNumber) {
  Statement statement{line.substr(0, line.find(' ')), {}, lineNumber};
  for (size_t position = statement.word.size(); position < line.size(); ++position) {
    if (line[position] == ' ') {
      continue;
    }
    EXPECT_EQ(line[position], '"') << "line " << lineNumber << ": " << line;
    std::string text;
    for (++position; line.at(position) != '"'; ++position) {
      text += line[position] == '\\' ? Unescape(line, position) : line[position];
    }
    statement.texts.push_back(text);
  }
  return statement;
}

/// Every block of the document that begins with `fence`.
std::vector<Example> ExamplesIn(std::string const& fence) {
  std::ifstream document(KP_FORMAT_DOCUMENT);
  EXPECT_TRUE(document.is_open());
  std::vector<Example> examples;
  bool isInside = false;
  int lineNumber = 0;
  for (std::string line; std::getline(document, line);) {
    ++lineNumber;
    if (line == fence) {
      EXPECT_FALSE(isInside) << "line " << lineNumber;
      isInside = true;
      examples.emplace_back();
    } else if (line == kFenceEnd) {
      isInside = false;
    } else if (isInside) {
      examples.back().push_back(ParseStatement(line, lineNumber));
    }
  }
  EXPECT_FALSE(isInside) << "a block without an end";
  return examples;
}

/// Runs one example: the file is laid when the first statement needs it read.
class ExampleRun {
 public:
  void Execute(Example const& example) {
    Settings expected;
    bool hasExpectedSettings = false;
    for (Statement const& statement : example) {
      SCOPED_TRACE("docs/settings-format.md, line " + std::to_string(statement.lineNumber));
      if (statement.word == "setting") {
        expected.emplace_back(statement.texts.at(0), statement.texts.at(1));
        hasExpectedSettings = true;
      } else if (statement.word == "no-settings") {
        hasExpectedSettings = true;
      } else {
        ExecuteOne(statement);
      }
    }
    if (hasExpectedSettings) {
      EXPECT_EQ(SettingsOf(Manager()), expected) << "line " << example.front().lineNumber;
    }
    EXPECT_GT(mCheckCount + hasExpectedSettings, 0) << "checks nothing";
  }

 private:
  ConfigFileManager& Manager() {
    if (!mManager) {
      mManager.reset(new ConfigFileManager(SimpleString(mPath.c_str())));
    }
    return *mManager;
  }

  void ExecuteOne(Statement const& statement) {
    if (statement.word == "file") {
      mContent += statement.texts.at(0);
      WriteWholeFile(mPath, mContent);
    } else if (statement.word == "set") {
      Manager().UpdateSetting(SimpleString(statement.texts.at(0).c_str()),
                              SimpleString(statement.texts.at(1).c_str()));
    } else if (statement.word == "reload") {
      Manager();
      WriteWholeFile(mPath, statement.texts.at(0));
      EXPECT_TRUE(Manager().ReloadSettingsFile());
    } else if (statement.word == "encoding") {
      EXPECT_EQ(std::to_string(Manager().mEncoding), statement.texts.at(0));
      ++mCheckCount;
    } else if (statement.word == "written") {
      EXPECT_TRUE(Manager().UpdateSettingsFile());
      EXPECT_EQ(ReadWholeFile(mPath), statement.texts.at(0));
      ++mCheckCount;
    } else {
      ADD_FAILURE() << "unknown word: " << statement.word;
    }
  }

  TemporaryFolder mFolder;
  std::string mPath = mFolder / "rks.cfg";
  std::string mContent;
  std::unique_ptr<ConfigFileManager> mManager;
  int mCheckCount = 0;
};

TEST(FormatDocument, ExamplesHold) {
  const std::vector<Example> examples = ExamplesIn(kExampleFence);
  EXPECT_GE(examples.size(), 20U) << "the document lost examples";
  for (Example const& example : examples) {
    ExampleRun().Execute(example);
  }
}

TEST(FormatDocument, TruthHolds) {
  size_t textCount = 0;
  for (Example const& example : ExamplesIn(kTruthFence)) {
    for (Statement const& statement : example) {
      ASSERT_TRUE(statement.word == "true" || statement.word == "false") << statement.word;
      for (std::string const& text : statement.texts) {
        EXPECT_EQ(SimpleString(text.c_str()).boolValue(), statement.word == "true") << text;
        ++textCount;
      }
    }
  }
  EXPECT_GE(textCount, 20U) << "the document lost examples";
}

}  // namespace

// QVFileManager as the agent uses it when it runs as an ordinary user, for the root test that
// runs this program as a throwaway account: its ordinary attempts meet real permissions, and
// its escalations go through the setuid helper.
//
//   FileManagerChild HELPER [OPERATION SHOULD_AUTH PATH [PATH]]...
//
// Standard input holds the administrator's name and password on two lines, or nothing for no
// rights. Each step logs "step OPERATION" first, then prints "OPERATION RESULT" on standard
// output. The log is the user's own, under HOME.

#include <iostream>
#include <memory>
#include <string>

#include "foundation/QVAuthorization.h"
#include "foundation/QVFileManager.h"
#include "foundation/QVLocalPaths.h"
#include "foundation/QVLog.h"
#include "platform/Clock.h"
#include "platform/ToolTable.h"

using namespace kestrin;

int main(int argc, char** argv) {
  if (argc < 2) {
    return 2;
  }
  std::string user, password;
  std::getline(std::cin, user);
  std::getline(std::cin, password);

  QVLocalPaths paths(QVLocalPaths::machineFromEnvironment());
  QVLog::setSharedController(std::make_unique<QVLog>(QVLog::configFromPaths(paths)));
  QVLog::createNewLog(std::string("Kestrin"));
  platform::ToolTable tools{{platform::Tool::KestrinAuth, argv[1]}};
  QVAuthorization authorization({paths, tools, false}, false);
  QVAuthorization::Session session = authorization.authStart();
  QVAuthorization::Session* rights = nullptr;
  if (!user.empty()) {
    session = authorization.authStartWithUser(user, SecretBuffer::copyOf(password));
    if (!session.isAuthorized()) {
      return 3;
    }
    rights = &session;
  }
  QVFileManager::Environment environment{paths, tools, platform::Clock::system()};

  for (int i = 2; i + 3 <= argc;) {
    const std::string operation = argv[i++];
    const bool shouldAuth = std::string(argv[i++]) == "1";
    const std::string path = argv[i++];
    QVLog::appendLog("step {}", operation);
    bool result = false;
    if (operation == "remove") {
      result = QVFileManager::removeFile(path, shouldAuth, rights);
    } else if (operation == "trash") {
      result = QVFileManager::trashFile(path, shouldAuth, rights, environment);
    } else if (operation == "mkdir") {
      result = QVFileManager::createDirectory(path, shouldAuth, rights);
    } else if (operation == "lock") {
      result = QVFileManager::lockFile(path);
    } else if ((operation == "move" || operation == "copy") && i < argc) {
      const std::string to = argv[i++];
      result = operation == "move" ? QVFileManager::moveFile(path, to, shouldAuth, rights)
                                   : QVFileManager::copyFile(path, to, shouldAuth, rights);
    } else {
      return 2;
    }
    std::cout << operation << " " << result << std::endl;
  }
  QVLog::finishWriting();
  return 0;
}

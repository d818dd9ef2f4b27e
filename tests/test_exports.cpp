// The shared object exports exactly the calls of the public headers: every
// spelling of the solver calls and the checkers, and the sparse-matrix
// functions, nothing else.

#include <gtest/gtest.h>

#include <cstdio>
#include <set>
#include <sstream>
#include <string>

namespace {

std::set<std::string> ExpectedFunctions() {
  std::set<std::string> want;
  for (const char *base : {"velmora", "velmorainit", "velmora_residual", "velmora_chkmatrix",
                           "velmora_printstats", "velmora_get_schur", "velmora_add_schur"}) {
    std::string lo = base, up;
    for (char c : lo) up += static_cast<char>(c >= 'a' && c <= 'z' ? c - 'a' + 'A' : c);
    for (const std::string &stem : {lo, lo + "_d", lo + "_z", up, up + "_D", up + "_Z"}) {
      want.insert(stem);
      want.insert(stem + "_");
    }
  }
  for (const char *name : {"velmora_exist_parallel", "velmora_ipopt_newinterface"}) {
    std::string lo = name, up;
    for (char c : lo) up += static_cast<char>(c >= 'a' && c <= 'z' ? c - 'a' + 'A' : c);
    want.insert({lo, lo + "_", up, up + "_"});
  }
  // the vector checker has plain and _z spellings, no _d
  want.insert({"velmora_chkvec", "velmora_chkvec_", "VELMORA_CHKVEC", "VELMORA_CHKVEC_",
               "velmora_chkvec_z", "velmora_chkvec_z_", "VELMORA_CHKVEC_Z", "VELMORA_CHKVEC_Z_"});
  want.insert({"GET_PROC_VELMORA", "smat_new_from", "smat_new_from_coord", "smat_copy_trans",
               "smat_add", "smat_free", "smat_to_symmetric_structure"});
  return want;
}

TEST(Exports, ExpectedListIsComplete) {
  const std::set<std::string> want = ExpectedFunctions();
  EXPECT_EQ(want.size(), 12u + 12u + 12u + 12u + 12u + 12u + 12u + 8u + 4u + 4u + 1u + 6u);
  for (const char *name :
       {"velmora", "velmora_d_", "VELMORA_Z", "velmorainit_z_", "VELMORAINIT_D",
        "VELMORA_EXIST_PARALLEL_", "velmora_ipopt_newinterface_", "VELMORA_CHKMATRIX_D_",
        "velmora_printstats_z", "VELMORA_CHKVEC_Z_", "velmora_residual", "velmora_residual_d_",
        "VELMORA_RESIDUAL_Z", "VELMORA_RESIDUAL_"}) {
    EXPECT_EQ(want.count(name), 1u) << name;
  }
  EXPECT_EQ(want.count("velmora_chkvec_d"), 0u);
  EXPECT_EQ(want.count("VELMORA_CHKVEC_D_"), 0u);
}

TEST(Exports, DefinedFunctionsAreExactlyTheInterface) {
  const std::string cmd = std::string("nm -D --defined-only '") + VELMORA_LIBRARY_FILE + "' 2>&1";
  FILE *pipe = popen(cmd.c_str(), "r");
  ASSERT_NE(pipe, nullptr) << cmd;
  std::string text;
  char buf[4096];
  size_t got;
  while ((got = fread(buf, 1, sizeof buf, pipe)) > 0) text.append(buf, got);
  const int status = pclose(pipe);
  ASSERT_EQ(status, 0) << cmd << "\n" << text;

  std::set<std::string> functions;  // types T and t
  std::set<std::string> others;     // every other defined symbol, for the report
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    std::string address, type, name;
    if (!(fields >> address >> type >> name)) continue;
    const size_t at = name.find('@');  // drop a version suffix
    if (at != std::string::npos) name.erase(at);
    if (name == "_init" || name == "_fini") continue;
    if (type == "T" || type == "t") {
      functions.insert(name);
    } else {
      others.insert(type + " " + name);
    }
  }

  const std::set<std::string> want = ExpectedFunctions();
  std::ostringstream missing, extra, rest;
  for (const std::string &s : want) {
    if (functions.count(s) == 0) missing << "  " << s << "\n";
  }
  for (const std::string &s : functions) {
    if (want.count(s) == 0) extra << "  " << s << "\n";
  }
  for (const std::string &s : others) rest << "  " << s << "\n";
  EXPECT_TRUE(missing.str().empty() && extra.str().empty())
      << "missing:\n"
      << missing.str() << "unexpected:\n"
      << extra.str() << "other defined symbols (not judged):\n"
      << rest.str();
}

}  // namespace

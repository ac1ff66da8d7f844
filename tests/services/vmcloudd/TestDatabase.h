#ifndef VM_TESTS_SERVICES_VMCLOUDD_TESTDATABASE_H_
#define VM_TESTS_SERVICES_VMCLOUDD_TESTDATABASE_H_

#include <string>

namespace vm::testing {

// The records database for one service under test. With VMCLOUDD_TEST_BACKEND=postgresql,
// a new empty database on a private PostgreSQL server that the test process starts on
// first use and stops at exit; otherwise empty, which means the embedded SQLite file.
// Fails the calling test (and returns empty) when the server cannot be had.
std::string FreshRecordsDatabase();

// A new empty database on the process's private PostgreSQL server, whatever the backend
// variable says; empty (the calling test failed) when there is no server.
std::string FreshPostgresDatabase();

}  // namespace vm::testing

#endif  // VM_TESTS_SERVICES_VMCLOUDD_TESTDATABASE_H_

#ifndef WEBSERVICE_FAILURES_H_
#define WEBSERVICE_FAILURES_H_

#include "frontend/register_exception.h"

namespace corvel::storage::tzregister::failures {

// Every way in which the web-service client fails. Where a row says so, its
// description ends in the value that the failure is about.

// Of records; about the column's name.
inline constexpr Failure kMissingField{ERR_WEBSERVICE, SEVERITY_ERROR, "Record",
                                       "Missing required field: "};
inline constexpr Failure kMissingValue{ERR_WEBSERVICE, SEVERITY_ERROR, "Record",
                                       "Missing required value for field: "};

// Of the steps that all calls share.
inline constexpr Failure kNoWebService{ERR_INVALID_ARGUMENT, SEVERITY_CRITICAL, "WSCataProxy",
                                       "missing ws"};
inline constexpr Failure kNoPasswordInFile{ERR_INVALID_ARGUMENT, SEVERITY_CRITICAL, "WSCataProxy",
                                           "Required parameter passwdfile not valid"};
inline constexpr Failure kNoAccount{
    ERR_INVALID_ARGUMENT, SEVERITY_CRITICAL, "WSCataProxy",
    "Required parameter url or login or passwd not present, or missing ws"};
inline constexpr Failure kNoAgentIdOption{ERR_WEBSERVICE, SEVERITY_CRITICAL, "WSCataProxy",
                                          "can't find agentid"};
inline constexpr Failure kNothingToCall{ERR_WEBSERVICE, SEVERITY_CRITICAL, "WSCataProxy",
                                        "null ws or res"};
inline constexpr Failure kCallFailed{ERR_WEBSERVICE, SEVERITY_CRITICAL, "WSCataProxy",
                                     "WebService call failed"};

// Of single operations.
inline constexpr Failure kNoRecords{ERR_WEBSERVICE, SEVERITY_ERROR, "WSCataProxy",
                                    "An error occurred: no records returned by the server"};
inline constexpr Failure kNoAgentOutput{ERR_WEBSERVICE, SEVERITY_ERROR, "WSCataProxy",
                                        "agentid, login or password is null."};
inline constexpr Failure kNoTableOutput{ERR_WEBSERVICE, SEVERITY_ERROR, "WSCataProxy",
                                        "recommendedrt or currentrt is null."};
inline constexpr Failure kNoConfigFileOutput{ERR_WEBSERVICE, SEVERITY_ERROR, "WSCataProxy",
                                             "configfilestr is null"};
inline constexpr Failure kRecommendedTableNotWritten{
    ERR_FILE_WRITE, SEVERITY_ERROR, "WSCataProxy",
    "Could not write to recommended routingtable file"};
inline constexpr Failure kCurrentTableNotWritten{ERR_FILE_WRITE, SEVERITY_ERROR, "WSCataProxy",
                                                 "Could not write to current routingtable file"};
inline constexpr Failure kConfigFileNotStored{ERR_FILE_WRITE, SEVERITY_ERROR, "WSCataProxy",
                                              "Could not write to configuration file"};

}  // namespace corvel::storage::tzregister::failures

#endif  // WEBSERVICE_FAILURES_H_

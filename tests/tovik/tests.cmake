# The library on the real base library and the real kernel.
tovik_test(message_test tovik/MessageTest.cpp)
tovik_test(client_test tovik/AddressTest.cpp tovik/ClientTest.cpp tovik/RecordSizeTest.cpp
                       tovik/ReplyTest.cpp)
tovik_test(async_sender_test tovik/AsyncSenderTest.cpp)
tovik_test(connection_test tovik/ConnectionTest.cpp)
tovik_test(server_test tovik/ServerTest.cpp)
tovik_test(async_client_test tovik/AsyncClientMessageTest.cpp tovik/AsyncClientTest.cpp)
tovik_test(diagnostics_test tovik/DiagnosticsTest.cpp)
tovik_test(conversation_test tovik/ConversationTest.cpp)
tovik_test(admission_test tovik/AdmissionTest.cpp)
tovik_test(order_test tovik/OrderTest.cpp)
tovik_test(descriptor_zero_test tovik/DescriptorZeroTest.cpp)
tovik_test(log_date_test tovik/LogDateTest.cpp)
tovik_test(registration_test tovik/RegistrationTest.cpp)
tovik_test(layout_test tovik/LayoutTest.cpp)
# Members' offsets, of private members too, and of classes with virtual functions.
set_source_files_properties(tovik/LayoutTest.cpp PROPERTIES COMPILE_OPTIONS
                                                 "-fno-access-control;-Wno-invalid-offsetof")

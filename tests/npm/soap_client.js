// A SOAP client nobody here wrote reads the WSDL that morphel-types emits and talks to morphel-server:
// node soap_client.js WSDL_FILE URL
const soap = require('soap');
const assert = require('assert');

const [wsdl, url] = process.argv.slice(2);
const ref = (type, id) => ({attributes: {type}, $value: id});

(async () => {
  const client = await soap.createClientAsync(wsdl, {endpoint: url});

  // Anonymous: the service root.
  const [content] = await client.MorphelRetrieveServiceContentAsync({_this: ref('MorphelServiceInstance', 'ServiceInstance')});
  const root = content.returnval;
  assert.ok(root.sessionManager, 'the content names the session manager');
  assert.ok(root.about && root.about.name, 'the content carries the about record');

  // A declared fault arrives as a SOAP fault whose detail names the fault's type.
  const sessions = ref('MorphelSessionManager', root.sessionManager.$value || root.sessionManager);
  let fault;
  try {
    await client.MorphelLoginAsync({_this: sessions, userName: 'demo', password: 'wrong'});
  } catch (e) {
    fault = e;
  }
  assert.ok(fault && fault.root, 'a wrong password is a SOAP fault');
  const body = JSON.stringify(fault.root.Envelope.Body.Fault);
  assert.ok(body.includes('InvalidLogin'), 'the fault names InvalidLogin: ' + body);

  // Log in and keep the session cookie for the next call.
  const [login] = await client.MorphelLoginAsync({_this: sessions, userName: 'demo', password: 'demo'});
  assert.strictEqual(login.returnval.userName, 'demo');
  const cookie = ((client.lastResponseHeaders || {})['set-cookie'] || [])[0];
  assert.ok(cookie, 'login hands out a session cookie');
  assert.ok(/; HttpOnly/.test(cookie) && /; SameSite=Strict/.test(cookie), 'the cookie is kept from scripts and other sites: ' + cookie);
  assert.strictEqual(/; Secure/.test(cookie), url.startsWith('https:'), 'the cookie is Secure exactly over HTTPS: ' + cookie);
  client.addHttpHeader('Cookie', cookie.split(';')[0]);

  const query = ref('MorphelQueryManager', root.queryManager.$value || root.queryManager);
  const [sources] = await client.MorphelGetSupportedConversionSourcesAsync({_this: query});
  assert.ok(sources.returnval, 'supported sources answered');
  console.log('npm soap client over ' + url.split(':')[0].toUpperCase() + ': retrieveContent, login, getSupportedConversionSources and a declared fault: ok');
})().catch((e) => {
  console.error('npm soap client failed:', e && (e.stack || e));
  process.exit(1);
});

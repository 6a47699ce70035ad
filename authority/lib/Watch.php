<?php

declare(strict_types=1);

namespace Quorvex\Authority;

/** The way in for people: one page to look at, behind an administrator's login. */
final class Watch
{
    private const METHODS = ['GET', 'HEAD'];
    private const CHALLENGE = 'WWW-Authenticate: Basic realm="Storage pool authority", charset="UTF-8"';
    private const NO_LOGIN = 'Log in as an administrator.';

    /** Sent with every answer; what the page itself may load is added by its digests. */
    private const HEADERS = [
        'Cache-Control: no-store',
        'X-Content-Type-Options: nosniff',
        'Referrer-Policy: no-referrer',
        'Cross-Origin-Resource-Policy: same-origin',
        'Cross-Origin-Opener-Policy: same-origin',
    ];
    private const POLICY = "default-src 'none'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'";

    /** Answers the request that PHP has. */
    public static function serve(): void
    {
        if (!in_array($_SERVER['REQUEST_METHOD'], self::METHODS, true)) {
            header('Allow: ' . implode(', ', self::METHODS));
            self::sendLine(405, 'This page is for looking only.');
            return;
        }
        try {
            $store = Store::open((string) getenv('QUORVEX_AUTHORITY_DATA'));
            self::admit($store);
            self::send(200, 'text/html', Overview::page($store), self::policy());
        } catch (Refusal $refusal) {
            // Also for an account that may not look: a browser asks for another one then.
            header(self::CHALLENGE);
            self::sendLine(401, $refusal->getMessage());
        } catch (\Throwable $failure) {
            error_log("{$failure->getMessage()} ({$failure->getFile()}:{$failure->getLine()})");
            self::sendLine(500, 'The authority failed; its server.log says why.');
        }
    }

    /** Refuses whoever is no administrator. A browser asks without a login first, which is nothing to write down. */
    private static function admit(Store $store): void
    {
        if (!isset($_SERVER['PHP_AUTH_USER'])) {
            throw new Refusal(Fault::LoginFailed, self::NO_LOGIN);
        }
        $caller = null;
        try {
            $caller = (new Accounts($store))->check($_SERVER['PHP_AUTH_USER'], $_SERVER['PHP_AUTH_PW'] ?? '');
            $caller->requireAdministrator('look at this page');
        } catch (Refusal $refusal) {
            self::log($store, $caller?->login ?? '', $refusal->getMessage());
            throw $refusal;
        }
    }

    private static function log(Store $store, string $login, string $outcome): void
    {
        $client = (new Origin($_SERVER))->client();
        $page = basename($_SERVER['SCRIPT_NAME']);
        $store->atomically(fn () => $store->logRequest($page, 'watch', $login, [], $outcome, $client));
    }

    /** Allows the one style and the one script that the page holds, and its asking for itself again. */
    private static function policy(): string
    {
        $digest = static fn (string $text): string => "'sha256-" . base64_encode(hash('sha256', $text, true)) . "'";
        $own = 'style-src ' . $digest(Overview::style()) . '; script-src ' . $digest(Overview::script());
        return self::POLICY . "; connect-src 'self'; $own";
    }

    private static function sendLine(int $status, string $line): void
    {
        self::send($status, 'text/plain', "$line\n", self::POLICY);
    }

    private static function send(int $status, string $type, string $text, string $policy): void
    {
        http_response_code($status);
        $own = ["Content-Security-Policy: $policy", "Content-Type: $type; charset=utf-8"];
        foreach ([...self::HEADERS, ...$own, 'Content-Length: ' . strlen($text)] as $header) {
            header($header);
        }
        echo $text;
    }
}

<?php

declare(strict_types=1);

namespace Quorvex\Authority;

/** The two ways in for programs: form pages and the channel page. Reads the request from PHP, writes the reply. */
final class Gateway
{
    private const CHANNEL_STATUS = 'X-Quorvex-Status: ';
    private const DELIVERED = 0;
    private const NOT_DELIVERED = 1;

    /** Answers a page whose fields come as a form. */
    public static function form(array $actions): void
    {
        $origin = new Origin($_SERVER);
        $request = new Request(self::page(), new Fields($_POST), $origin->client(), $origin->webUrl(...));
        self::send(self::answer($request, $actions));
    }

    /** Answers the channel page, whose fields come as a request text. */
    public static function channel(array $actions): void
    {
        try {
            $origin = new Origin($_SERVER);
            $fields = ChannelText::fields($_SERVER, $origin, file_get_contents('php://input'));
            $request = new Request(self::page(), $fields, $origin->client(), $origin->channelUrl(...));
            $answer = self::answer($request, $actions);
            header(self::CHANNEL_STATUS . self::DELIVERED);
        } catch (MalformedRequest $malformed) {
            $answer = $malformed->getMessage() . "\n";
            header(self::CHANNEL_STATUS . self::NOT_DELIVERED);
        }
        self::send($answer);
    }

    /** The answer; a failure of the authority itself becomes an error block that keeps its cause to the log. */
    private static function answer(Request $request, array $actions): string
    {
        try {
            $store = Store::open((string) getenv('QUORVEX_AUTHORITY_DATA'));
            return (new Authority($store, $actions))->answer($request);
        } catch (\Throwable $failure) {
            error_log("{$failure->getMessage()} ({$failure->getFile()}:{$failure->getLine()})");
            return Answer::error(Fault::Internal, $request->page, 'The authority failed; its server.log says why.');
        }
    }

    private static function page(): string
    {
        return basename($_SERVER['SCRIPT_NAME']);
    }

    private static function send(string $answer): void
    {
        header('Content-Type: text/plain; charset=utf-8');
        // Answers hold passwords of system accounts.
        header('Cache-Control: no-store');
        header('Content-Length: ' . strlen($answer));
        echo $answer;
    }
}
